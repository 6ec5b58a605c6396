#include "temp_dir.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

temp_dir::temp_dir()
{
    std::string name = (fs::temp_directory_path() / "kestrel-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        abort();
    path_ = name;
}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string temp_dir::write(const std::string &name, const std::string &content) const
{
    const std::string target = at(name);
    fs::create_directories(fs::path(target).parent_path());
    std::ofstream(target, std::ios::binary) << content;
    return target;
}

std::string read_file(const std::string &path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}
