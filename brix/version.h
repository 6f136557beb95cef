// The version of the headers, for code that must tell releases apart at compile time. It is the
// version get_version() reports; CMake refuses to configure when project() says otherwise.
#ifndef BRIX_VERSION_H
#define BRIX_VERSION_H

#define BRIX_VERSION_MAJOR 1
#define BRIX_VERSION_MINOR 2
#define BRIX_VERSION_PATCH 5
#define BRIX_VERSION "1.2.5"

#endif
