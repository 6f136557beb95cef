#include "brix/version.h"
#include "brix/brix.h"

namespace brix {

std::string get_version() {
  return BRIX_VERSION;
}

unsigned long get_build() {
  return BRIX_VERSION_MAJOR * 10000ul + BRIX_VERSION_MINOR * 100ul + BRIX_VERSION_PATCH;
}

std::string get_copyright() {
  return "Brix version " BRIX_VERSION
         " - Copyright (c) 2026 the Brix developers. All rights reserved.";
}

}  // namespace brix
