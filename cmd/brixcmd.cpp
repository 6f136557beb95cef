#include <iostream>

#include "brix/brix.h"

int main(int argc, char** argv) {
  std::cout << brix::get_copyright() << std::endl;
  return 0;
}
