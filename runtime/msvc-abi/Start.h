#pragma once

// The static objects of this image: the library's or the program's.
void ConstructStaticObjects();
void DestroyStaticObjects();
