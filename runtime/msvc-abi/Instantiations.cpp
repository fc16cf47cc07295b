// What libc++'s headers expect its compiled part to hold, which is not there.
#include <string>

template class std::basic_string<char>;
