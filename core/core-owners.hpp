// Owners of what C hands out: each releases its resource at the end of its life.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>

// Hands a resource to the C function that releases it.
template <auto Release> struct releaser {
    template <typename T> void operator()(T *resource) const { Release(resource); }
};
template <typename T, auto Release> using owned = std::unique_ptr<T, releaser<Release>>;

// Memory from malloc(3) and its relatives.
using owned_text = owned<char, free>;
using owned_bytes = owned<unsigned char, free>;
using owned_stream = owned<FILE, fclose>;
using owned_directory = owned<DIR, closedir>;

// A descriptor with the function that closes it; empty when negative.
template <int (*Close)(int)> class owned_handle {
  public:
    owned_handle() = default;
    explicit owned_handle(int handle) : handle_(handle) {}
    owned_handle(const owned_handle &) = delete;
    owned_handle &operator=(const owned_handle &) = delete;
    ~owned_handle() { static_cast<void>(close()); }

    [[nodiscard]] int get() const { return handle_; }
    // Where an open call stores its descriptor.
    int *receive()
    {
        static_cast<void>(close()); // nothing depends on the one before
        return &handle_;
    }
    // Gives the descriptor up to the caller.
    [[nodiscard]] int release()
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

// printf(3) into memory of its own; null when there is none.
[[nodiscard]] inline owned_text __attribute__((format(printf, 1, 2))) format_text(const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    return owned_text(length < 0 ? nullptr : text);
}
