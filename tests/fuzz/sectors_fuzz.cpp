// The request of one image: the command line with the file's real size in sectors. Eight bytes for the file's
// size, one byte of which the low bits say erase (1) and no file (2); the command line follows.
#include "core.hpp"
#include "firehose-program.hpp"
#include "fuzz.hpp"
#include "image-list.hpp"
#include "xml.hpp"

#include <memory>

namespace {

constexpr char attribute[] = "num_partition_sectors=\"";

// What stands in place of the old number, and that all the rest stayed as it was.
void check_rewritten(const std::string &line, const std::string &command, const image &img)
{
    uint32_t sector_size = 0;
    fuzz_check(get_uint_attribute(img.command, "SECTOR_SIZE_IN_BYTES", &sector_size) && sector_size != 0);
    const size_t value = command.find(attribute) + sizeof attribute - 1;
    const size_t end = command.find('"', value + 1);
    fuzz_check(end != std::string::npos);
    const uint64_t sectors =
        img.file_size / sector_size + (img.file_size % sector_size != 0 ? 1 : 0); // no sum that wraps around
    const auto shown = static_cast<int32_t>(static_cast<uint32_t>(sectors));
    fuzz_check(line == command.substr(0, value) + std::to_string(shown) + command.substr(end));
}

void check_padding(uint32_t read_size, uint32_t payload, uint32_t sector_size)
{
    const uint32_t chunk = find_minimum_chunk_size(read_size, payload, sector_size);
    fuzz_check(chunk <= payload && chunk >= std::min(read_size, payload));
    fuzz_check(chunk == payload || (chunk % sector_size == 0 && chunk - read_size < sector_size));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input(data, size);
    const auto img = std::make_unique<image>();
    img->file_size = input.take_u64() & 0xFFFFFFFFFFF; // no file is larger
    const uint8_t flags = input.take_byte();
    const bool is_erase = (flags & 1) != 0;
    if ((flags & 2) == 0)
        strlcpy(img->filename, "one.bin", sizeof img->filename);
    strlcpy(img->command, input.rest().c_str(), sizeof img->command);
    const std::string command = img->command;
    quiet_log();

    owned_text line;
    const int length = change_num_partition_sectors_attrib(&line, img.get(), is_erase);
    fuzz_check(length >= -1 && command == img->command);
    if (length > 0) {
        fuzz_check(strlen(line.get()) == static_cast<size_t>(length));
        fuzz_check(!is_erase && img->filename[0] != '\0');
        check_rewritten(line.get(), command, *img);
    } else if (length == 0) {
        fuzz_check(command == line.get());
    } else {
        fuzz_check(contains(command, attribute));
    }
    owned_text request;
    const int framed = get_command_xml(&request, img.get(), is_erase);
    fuzz_check((framed < 0) == (length < 0));
    if (framed >= 0)
        fuzz_check(std::string("<?xml version=\"1.0\"?>\n<data>\n") + line.get() + "\n</data>\n" ==
                   request.get());

    const auto numbers = static_cast<uint32_t>(img->file_size);
    const uint32_t sector_size = numbers % 5000 + 1;
    check_padding(numbers / 5000 % 20000 + 1, static_cast<uint32_t>(command.size()) * 20 + 1, sector_size);
    return 0;
}
