// Owners of what C hands out: each releases its resource at the end of its life.
#pragma once

#include "core-device.hpp"
#include "core-file.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>

// Memory from malloc(3) and its relatives.
struct free_deleter {
    void operator()(void *memory) const { free(memory); }
};
using owned_text = std::unique_ptr<char, free_deleter>;
using owned_bytes = std::unique_ptr<unsigned char, free_deleter>;

struct stream_closer {
    void operator()(FILE *stream) const { fclose(stream); }
};
using owned_stream = std::unique_ptr<FILE, stream_closer>;

struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};
using owned_directory = std::unique_ptr<DIR, directory_closer>;

// A descriptor with the function that closes it; empty when negative.
template <int (*Close)(int)> class owned_handle {
  public:
    owned_handle() = default;
    explicit owned_handle(int handle) : handle_(handle) {}
    owned_handle(const owned_handle &) = delete;
    owned_handle &operator=(const owned_handle &) = delete;
    ~owned_handle() { close(); }

    int get() const { return handle_; }
    // Where an open call stores its descriptor.
    int *receive()
    {
        close();
        return &handle_;
    }
    // Gives the descriptor up to the caller.
    int release()
    {
        const int handle = handle_;
        handle_ = -1;
        return handle;
    }
    // Closes now and tells how that went; 0 when there was nothing to close.
    int close() { return handle_ >= 0 ? Close(release()) : 0; }

  private:
    int handle_ = -1;
};
using owned_device = owned_handle<core_device_close>;
using owned_file = owned_handle<core_file_close>;

// printf(3) into memory of its own; null when there is none.
inline owned_text __attribute__((format(printf, 1, 2))) format_text(const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return owned_text(length < 0 ? nullptr : text);
}
