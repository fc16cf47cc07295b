// libc++'s headers expect these in its compiled part, which this build does not have.
#include <string>

template class std::basic_string<char>;
