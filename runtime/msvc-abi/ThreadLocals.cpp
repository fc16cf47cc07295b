// What an image with thread-local objects needs. Objects that have to be constructed or destroyed
// in each thread are not supported.
#include <windows.h>

extern "C" {

// The system stores here which of a thread's blocks belongs to this image.
extern ULONG _tls_index;
ULONG _tls_index = 0;

// The compiler fills sections with the initial values; they lie between these two.
[[gnu::section(".tls")]] static char first = 0;
[[gnu::section(".tls$ZZZ")]] static char last = 0;

// The linker looks for this name.
extern const IMAGE_TLS_DIRECTORY64 _tls_used;
[[gnu::section(".rdata$T")]] const IMAGE_TLS_DIRECTORY64 _tls_used = {
    reinterpret_cast<ULONGLONG>(&first),
    reinterpret_cast<ULONGLONG>(&last),
    reinterpret_cast<ULONGLONG>(&_tls_index),
    0,
    0,
    0};
}
