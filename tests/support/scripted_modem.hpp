// A modem on a pseudo-terminal: it waits for each command of its script, in a thread of its own, and answers
// it.
#pragma once

#include "pty.hpp"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

// What the modem sends when a command has come: the pieces one after the other, each when the one before has
// been read. A modem may also leave.
struct modem_answer {
    std::vector<std::string> pieces;
    bool hang_up = false;
};

class scripted_modem {
  public:
    // Answers the commands in the order in which they come; a command behind the script gets no answer.
    explicit scripted_modem(std::vector<modem_answer> script)
        : script_(std::move(script)), thread_([this] { run(); })
    {
    }
    scripted_modem(const scripted_modem &) = delete;
    scripted_modem &operator=(const scripted_modem &) = delete;
    ~scripted_modem() { stop(); }

    const std::string &path() const { return path_; }

    // The commands that came, without their carriage returns. Ends the modem.
    const std::vector<std::string> &commands()
    {
        stop();
        return commands_;
    }

  private:
    // The next command, without its carriage return; false when the modem is to end.
    bool receive_command(std::string *command)
    {
        for (;;) {
            const std::string byte = port_.receive(1, std::chrono::milliseconds(30));
            if (byte == "\r")
                return true;
            if (byte.empty() && stopped_)
                return false;
            *command += byte;
        }
    }

    void run()
    {
        for (size_t i = 0;; ++i) {
            std::string command;
            if (!receive_command(&command)) {
                if (!command.empty())
                    commands_.push_back(command + " (unfinished)");
                return;
            }
            commands_.push_back(command);
            if (i >= script_.size())
                continue;
            for (const std::string &piece : script_[i].pieces) {
                port_.send(piece);
                port_.wait_drained(std::chrono::milliseconds(500));
            }
            if (script_[i].hang_up) {
                port_.hang_up();
                return;
            }
        }
    }

    void stop()
    {
        stopped_ = true;
        if (thread_.joinable())
            thread_.join();
    }

    pty port_;
    std::string path_ = port_.path();
    std::vector<modem_answer> script_;
    std::vector<std::string> commands_;
    std::atomic<bool> stopped_ = false;
    std::thread thread_; // last: it uses all of the others
};
