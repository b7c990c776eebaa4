// Files of the tests: whole contents and sizes, and the data files under tests/
// with their C escapes and columns.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ibptest {

inline std::string ReadFile(const std::string &path)  // "" when it cannot be read
{
    std::stringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

inline bool WriteFile(const std::string &path, const std::string &data)
{
    return static_cast<bool>(std::ofstream(path, std::ios::binary) << data);
}

inline long FileSize(const std::string &path)  // -1 when missing
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// A data file by its path under tests/.
inline std::string ReadData(const std::string &name) { return ReadFile(std::string(IBP_TEST_DATA_DIR) + "/" + name); }

// "\n", "\t", "\r", "\0", "\e" (ESC), "\a" (BEL), "\b" (BS), "\d" (DEL), "\D" (Ctrl-D), "\xNN" and "\\"
// as the bytes they stand for.
inline std::string Unescape(const std::string &s)
{
    static const std::string kFrom = "ntr0eabdD", kTo = std::string("\n\t\r\0\x1b\a\b\x7f\x04", 9);
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        const char c = s[i] == '\\' && i + 1 < s.size() ? s[++i] : '\\';
        if (c == 'x' && i + 2 < s.size() + 1)
            out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16)), i += 2;
        else
            out += c == '\\' ? s[i] : kFrom.find(c) != std::string::npos ? kTo[kFrom.find(c)] : c;
    }
    return out;
}

// The parts of s between the separators.
inline std::vector<std::string> Split(const std::string &s, char cSep)
{
    std::vector<std::string> parts;
    for (std::istringstream in(s); std::getline(in, parts.emplace_back(), cSep);) {
    }
    return parts.pop_back(), parts;
}

// The rows of a data file, "#" lines and empty ones left out, split at cSep, each column's C escapes read;
// a row that ends in cSep has an empty last column.
inline std::vector<std::vector<std::string>> Rows(const std::string &name, char cSep = '|')
{
    std::vector<std::vector<std::string>> rows;
    for (const std::string &line : Split(ReadData(name), '\n')) {
        if (line.empty() || line[0] == '#')
            continue;
        rows.push_back(Split(line + cSep, cSep));
        for (std::string &col : rows.back())
            col = Unescape(col);
    }
    return rows;
}

}  // namespace ibptest
