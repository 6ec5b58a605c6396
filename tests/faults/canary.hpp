// A pseudo-terminal of the program's own, that tells whether the kernel is passing bytes on at all. It does
// so in the background, and on a machine that is busy starting programs that stops for half a second now and
// then.
#pragma once

class canary {
  public:
    canary(); // aborts when there is no pseudo-terminal
    canary(const canary &) = delete;
    canary &operator=(const canary &) = delete;
    ~canary();

    // Puts a byte on its way, unless one is.
    void send();
    // Whether none is on its way any more.
    bool has_arrived();

  private:
    int master_ = -1;
    int slave_ = -1;
    bool under_way_ = false;
};
