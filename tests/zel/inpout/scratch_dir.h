// A fresh directory under /tmp for one test, removed with everything in it afterwards, and the
// message of a runtime error.
#ifndef TESTS_ZEL_INPOUT_SCRATCH_DIR_H
#define TESTS_ZEL_INPOUT_SCRATCH_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class scratch_dir {
 public:
  scratch_dir() {
    char templ[] = "/tmp/brix_inpout_XXXXXX";
    if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
  }
  ~scratch_dir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  scratch_dir(const scratch_dir&) = delete;
  scratch_dir& operator=(const scratch_dir&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }

  std::string write(const std::string& name, const std::string& bytes) const {
    std::string p = file(name);
    std::ofstream(p, std::ios::binary) << bytes;
    return p;
  }

  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  std::string path_;
};

// The message of the runtime error that f throws, or "" when it throws none.
template <class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "";
}

#endif
