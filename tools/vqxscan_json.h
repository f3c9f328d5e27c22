// vqxscan_json: a minimal JSON writer for vqxscan's summary (objects,
// arrays, strings, numbers and truth values; strings escaped per RFC 8259).
#ifndef VQXSCAN_JSON_H
#define VQXSCAN_JSON_H

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace vqxscan {

class Json_writer {
public:
    Json_writer& begin_object() { open('{'); return *this; }
    Json_writer& end_object() { close('}'); return *this; }
    Json_writer& begin_array() { open('['); return *this; }
    Json_writer& end_array() { close(']'); return *this; }

    Json_writer& key(const std::string& name)
    {
        separate();
        quote(name);
        out += ':';
        after_key = true;
        return *this;
    }
    Json_writer& value(const std::string& text) { separate(); quote(text); return *this; }
    Json_writer& value(const char* text) { return value(std::string(text)); }
    Json_writer& value(bool b) { separate(); out += b ? "true" : "false"; return *this; }
    Json_writer& value(double number)
    {
        separate();
        if (!std::isfinite(number)) {
            out += "null";
            return *this;
        }
        char buffer[32];
        if (number == std::floor(number) && std::fabs(number) < 1e15)
            std::snprintf(buffer, sizeof buffer, "%.0f", number);
        else
            std::snprintf(buffer, sizeof buffer, "%.3f", number);
        out += buffer;
        return *this;
    }

    const std::string& str() const { return out; }

private:
    void open(char c) { separate(); out += c; first.push_back(true); }
    void close(char c) { out += c; first.pop_back(); }
    void separate()
    {
        if (after_key) {
            after_key = false;
            return;
        }
        if (!first.empty()) {
            if (!first.back())
                out += ',';
            first.back() = false;
        }
    }
    void quote(const std::string& s)
    {
        out += '"';
        for (unsigned char c : s) {
            switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char esc[8];
                    std::snprintf(esc, sizeof esc, "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
            }
        }
        out += '"';
    }

    std::string out;
    std::vector<bool> first;  // per open container: no element written yet
    bool after_key = false;
};

} // namespace vqxscan

#endif
