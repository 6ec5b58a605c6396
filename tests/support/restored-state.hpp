// State of the process that one case could leave to the next: whoever owns some registers here, once, how it
// is put back. That happens before and after each case of every program that is linked with this
// (case-state.cpp).
#pragma once

#include <functional>

class restored_state {
  public:
    // `verify`, where there is one, looks at the end of a case for what it should have used up.
    explicit restored_state(std::function<void()> put_back, std::function<void()> verify = nullptr);
};
