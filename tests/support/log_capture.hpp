// Captures what the code under test logs, for as long as the object lives; the log core's state is put back
// at the end. Messages are recorded as passed to the pretty printer: level, source file, function and text.
#pragma once

#include "zepho-log.hpp"

#include <string>
#include <vector>

struct logged_message {
    int level;
    std::string file;
    std::string function;
    int line;
    std::string text;
};

class log_capture {
  public:
    // Records messages up to `level`.
    explicit log_capture(int level = CORE_LOG_DBG);
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;
    ~log_capture();

    const std::vector<logged_message> &messages() const;
    void clear();
    // The texts of one level, in order.
    std::vector<std::string> texts(int level) const;
    // True when a message of this level and exactly this text was logged.
    bool has(int level, const std::string &text) const;
    // How many messages of this level and exactly this text were logged.
    int count(int level, const std::string &text) const;

  private:
    int saved_level;
    core_log_pprint_fn saved_pprint;
};

// Captures the finished lines that reach the print function, with the pretty printer left as it is.
struct printed_line {
    int level;
    std::string text;
};

class print_capture {
  public:
    print_capture();
    print_capture(const print_capture &) = delete;
    print_capture &operator=(const print_capture &) = delete;
    ~print_capture();

    const std::vector<printed_line> &lines() const;
    void clear();

  private:
    core_log_print_fn saved;
};
