#pragma once

/// @file
/// The whole exported interface.

/// @namespace Quorvel
/// The C++ interface. A host includes Quorvel.h and links the library.

#include "quorvel/AutoMutex.h"
#include "quorvel/EffectCacheSystem.h"
#include "quorvel/Exceptions.h"
#include "quorvel/FilePackage.h"
#include "quorvel/IDataStream.h"
#include "quorvel/IDataStreamSet.h"
#include "quorvel/MultiProcessMemory.h"
#include "quorvel/MultiProcessTimeStamp.h"
#include "quorvel/MutexObject.h"
#include "quorvel/PagedFilePackageConfig.h"
#include "quorvel/Version.h"
#include "quorvel/VertexNormalsControl.h"
