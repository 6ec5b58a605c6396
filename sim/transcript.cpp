#include "transcript.hpp"

#include "clock.hpp"

namespace sim {

transcript::transcript() : start_us_(monotonic_us()) {}

bool transcript::open(const std::string &path)
{
    file_.reset(std::fopen(path.c_str(), "we"));
    return file_ != nullptr;
}

bool transcript::open_record(const std::string &path)
{
    record_.reset(std::fopen(path.c_str(), "we"));
    return record_ != nullptr;
}

void transcript::record(view bytes)
{
    if (!record_)
        return;
    std::fwrite(bytes.data(), 1, bytes.size(), record_.get());
    std::fflush(record_.get());
}

json_members transcript::head(std::string_view direction, std::string_view stage, std::string_view kind) const
{
    json_members line;
    line.fraction("t", static_cast<double>(monotonic_us() - start_us_) / 1e6)
        .text("dir", direction)
        .text("stage", stage)
        .text("kind", kind);
    return line;
}

void transcript::received(std::string_view kind, uint64_t length, const json_members &fields)
{
    if (wanted())
        write(head("rx", stage_, kind).number("length", length).append(fields));
}

void transcript::sent(std::string_view stage, std::string_view kind, uint64_t length,
                      const json_members &fields)
{
    if (wanted())
        write(head("tx", stage, kind).number("length", length).append(fields));
}

void transcript::event(std::string_view kind, const json_members &fields)
{
    if (wanted())
        write(head("event", stage_, kind).append(fields));
}

void transcript::write(const json_members &line)
{
    if (sink_)
        sink_(line.object());
    if (!file_)
        return;
    std::fprintf(file_.get(), "%s\n", line.object().c_str());
    std::fflush(file_.get());
}

} // namespace sim
