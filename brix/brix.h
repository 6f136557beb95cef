// Public interface of the Brix decision tree library.
#ifndef BRIX_BRIX_H
#define BRIX_BRIX_H

#include <string>

namespace brix {

std::string get_version();
unsigned long get_build();
std::string get_copyright();

}  // namespace brix

#endif
