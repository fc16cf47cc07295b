#pragma once

// These apply to the static objects of this image, which is the library or the program.
void ConstructStaticObjects();
void DestroyStaticObjects();
