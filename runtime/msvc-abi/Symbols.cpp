// Symbols that the compiler itself refers to.

extern "C" {

// Marks the image as using floating point.
extern const int _fltused;
const int _fltused = 0x9875;

// The virtual table that every type descriptor points to. It is never called through: the functions
// of vcruntime140.dll compare descriptors by the names in them.
extern const void* const kTypeInfoTable[] __asm__("??_7type_info@@6B@");
const void* const kTypeInfoTable[] = {nullptr};
}
