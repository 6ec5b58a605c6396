// A file whose content is a fuzz input: one descriptor for the whole run, rewritten for each execution.
#pragma once

#include "core-reading.hpp"

#include <cstddef>
#include <string>

class fuzz_file {
  public:
    // In memory; the path goes through /proc.
    fuzz_file();
    // At `path`, which is created.
    explicit fuzz_file(const std::string &path);
    fuzz_file(const fuzz_file &) = delete;
    fuzz_file &operator=(const fuzz_file &) = delete;
    ~fuzz_file();

    const char *path() const { return path_.c_str(); }
    // Makes these bytes the whole content.
    void set(const std::string &content);
    // What a package notes of the file when it is checked; another one after each set().
    core_file_identity identity() const;

  private:
    int handle_;
    std::string path_;
};
