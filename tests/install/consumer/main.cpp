// A program outside the project: trains a tree on a stem given on the command line through the
// installed public header and prints it.
#include <brix/brix.h>

#include <iostream>
#include <memory>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: consumer STEM" << std::endl;
    return 2;
  }
  // The headers' version macro is the library's version.
  if (brix::get_version() != BRIX_VERSION) {
    std::cerr << "headers " << BRIX_VERSION << ", library " << brix::get_version() << std::endl;
    return 1;
  }
  std::string stem = argv[1];
  brix::table t("consumer");
  t.load_meta_data(brix::datasource("FILE#" + stem + ".names#,"));
  t.load_data(brix::datasource("FILE#" + stem + ".data#,"), "?");
  brix::dtree tree("consumer");
  tree.build(&t, nullptr, true, 0);
  std::cout << brix::get_version() << " size " << tree.size() << std::endl;
  tree.toTEXT(std::cout);
  return 0;
}
