#include "brix/brix.h"

namespace brix {

std::string get_version() {
  return "1.2.5";
}

unsigned long get_build() {
  return 10205;
}

std::string get_copyright() {
  return "Brix version 1.2.5 - Copyright (c) 2026 the Brix developers. All rights reserved.";
}

}  // namespace brix
