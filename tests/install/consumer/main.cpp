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
