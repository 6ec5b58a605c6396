// The folder that takes the place of the flash memory. Every kept request becomes NNN-ELEMENT.xml, the bytes
// that follow a program request NNN-program.bin, and the uploaded boot stage programmer.bin. Files are closed
// before the device acknowledges them. Without a folder, or when data are to be discarded, bytes are only
// counted. Functions that answer bool give false when the system refused; `error` then says what and why.
#pragma once

#include "bytes.hpp"
#include "crc32.hpp"
#include "descriptor.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sim {

class flash_store {
  public:
    // `folder` empty: nothing is kept. `discard`: requests are kept, data are not. `from`: the folder of an
    // earlier run, whose files are there from the start; it may be the same one.
    flash_store(std::string folder, bool discard, std::string from = "")
        : folder_(std::move(folder)), from_(std::move(from)), discard_(discard)
    {
    }

    [[nodiscard]] bool prepare(); // makes the folder if it is missing
    const std::string &error() const { return error_; }

    [[nodiscard]] bool keep_request(std::string_view element, std::string_view text);

    // The data of the request kept last.
    [[nodiscard]] bool open_image();
    [[nodiscard]] bool write_image(view bytes);
    [[nodiscard]] bool close_image();
    uint64_t image_size() const { return image_size_; }
    std::optional<uint32_t> image_crc() const; // nothing when data are discarded

    [[nodiscard]] bool open_programmer();
    [[nodiscard]] bool write_programmer(uint64_t offset, view bytes);
    [[nodiscard]] bool close_programmer();

  private:
    bool keeps_data() const { return !folder_.empty() && !discard_; }
    std::string numbered(std::string_view element, std::string_view suffix) const;
    [[nodiscard]] bool create(descriptor &file, const std::string &name);
    [[nodiscard]] bool close(descriptor &file, const std::string &name);
    bool failed(const std::string &name);
    [[nodiscard]] bool take_over();

    std::string folder_;
    std::string from_;
    bool discard_;
    std::string error_;
    unsigned requests_ = 0; // kept so far
    descriptor image_;
    uint64_t image_size_ = 0;
    crc32 image_crc_;
    descriptor programmer_;
};

} // namespace sim
