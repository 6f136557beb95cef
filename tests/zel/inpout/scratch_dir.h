// A fresh directory under /tmp for one test, removed with everything in it afterwards, files in it
// plain or gzipped, and the message of a runtime error.
#ifndef TESTS_ZEL_INPOUT_SCRATCH_DIR_H
#define TESTS_ZEL_INPOUT_SCRATCH_DIR_H

#include <stdlib.h>
#include <zlib.h>

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

  // One gzip member holding the bytes.
  std::string gzip(const std::string& name, const std::string& bytes) const {
    std::string p = file(name);
    gzFile f = gzopen(p.c_str(), "wb1");
    if (f == nullptr) throw std::runtime_error("cannot open " + p);
    if (!bytes.empty()) gzwrite(f, bytes.data(), static_cast<unsigned>(bytes.size()));
    gzclose(f);
    return p;
  }

  static std::string gunzip(const std::string& path) {
    gzFile f = gzopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    std::string out;
    char buf[4096];
    for (int n; (n = gzread(f, buf, sizeof buf)) > 0;)
      out.append(buf, static_cast<std::size_t>(n));
    gzclose(f);
    return out;
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
