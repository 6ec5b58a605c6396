// The transcript of a conversation: one JSON object a line, flushed at once, so that a test can read it while
// the run goes on.
//
//   t       seconds since the start, monotonic
//   dir     "rx" (host to device), "tx" (device to host), "event" (the device itself)
//   stage   "normal", "sahara", "firehose", "ended"
//   kind    "hello", "read_data", "program", "data", "ack", "fault", "stage", ...
//   length  bytes on the wire; missing in events
//
// followed by the fields of the kind. Owns the FILE; without a file every call does nothing.
#pragma once

#include "bytes.hpp"
#include "json-line.hpp"

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace sim {

class transcript {
  public:
    transcript();

    // False with errno set when the file cannot be made.
    [[nodiscard]] bool open(const std::string &path);
    // The bytes themselves, all that the host sent, into a file of their own. False as above.
    [[nodiscard]] bool open_record(const std::string &path);
    void record(view bytes);
    // For tests: lines go to `sink` instead of a file.
    void set_sink(std::function<void(const std::string &)> sink) { sink_ = std::move(sink); }

    void set_stage(std::string_view stage) { stage_ = stage; }
    const std::string &stage() const { return stage_; }

    void received(std::string_view kind, uint64_t length, const json_members &fields = {});
    // A message is sent later than it was made: `stage` is that of its making.
    void sent(std::string_view stage, std::string_view kind, uint64_t length,
              const json_members &fields = {});
    void event(std::string_view kind, const json_members &fields = {});

  private:
    struct close_file {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    bool wanted() const { return file_ != nullptr || sink_ != nullptr; }
    json_members head(std::string_view direction, std::string_view stage, std::string_view kind) const;
    void write(const json_members &line);

    std::unique_ptr<std::FILE, close_file> file_;
    std::unique_ptr<std::FILE, close_file> record_;
    std::function<void(const std::string &)> sink_;
    std::string stage_ = "normal";
    uint64_t start_us_;
};

} // namespace sim
