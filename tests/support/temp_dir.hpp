// A directory that lives as long as the object, with helpers to fill it.
#pragma once

#include <string>

class temp_dir {
  public:
    temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    ~temp_dir();

    const std::string &path() const { return path_; }
    // The path of `name` inside.
    std::string at(const std::string &name) const { return path_ + "/" + name; }
    // Writes a file (its folders included) and returns its path.
    std::string write(const std::string &name, const std::string &content) const;

  private:
    std::string path_;
};

// The whole content of a file; empty when it cannot be read.
std::string read_file(const std::string &path);
