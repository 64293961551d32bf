// A string as a JSON string literal, for the benchmark hosts' one-line reports.
#pragma once

#include <cstdio>
#include <string>

inline std::string Json(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') out += '\\', out += static_cast<char>(c);
        else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else out += static_cast<char>(c);
    }
    return out + "\"";
}
