// What a chunk of a programmer says, judged anew for the fuzz targets.
#pragma once

#include "fuzz.hpp"

#include <algorithm>

// A chunk is a text: what stands behind a zero is no part of it.
inline bool has_ack(const std::string &chunk)
{
    return contains(chunk.c_str(), "value=\"ACK\"");
}

inline bool has_nak(const std::string &chunk)
{
    return contains(chunk.c_str(), "value=\"NAK\"");
}

// An ACK that does not say `other` of itself, be it in the element or, where that has ended, in the one in
// front of it.
inline bool has_ack_without(const std::string &chunk, const std::string &other)
{
    const std::string text = chunk.c_str();
    for (size_t begin = 0; begin != std::string::npos;) {
        const size_t next = text.find('<', begin);
        const std::string piece = text.substr(begin, next - begin);
        if (has_ack(piece) && !contains(piece.substr(0, piece.find('>')), other))
            return true;
        begin = next != std::string::npos ? next + 1 : next;
    }
    return false;
}

// Before it says something, the updater looks for what still waits: chunk by chunk, to the first that brings
// nothing or refuses, and no more than 64. True where it has looked like that; a refusal can only be the
// last.
inline bool is_look_for_strays(const std::vector<std::string> &chunks)
{
    constexpr size_t most = 64;
    const auto ends_it = [](const std::string &chunk) { return chunk.empty() || has_nak(chunk); };
    const auto end = std::find_if(chunks.begin(), chunks.end(), ends_it);
    return end != chunks.end() ? end + 1 == chunks.end() && chunks.size() <= most : chunks.size() == most;
}
