// The page server: http://localhost/cgi-bin/page/show?path=<application>/<page> answers with the file
// /home/<application>/html/<page>. A CGI program that runs under the web server's account and never leaves
// the html directory of the application that is named, neither by ".." nor by a link.
#include "misc/UniqueFd.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kBlock = 65536;

struct MediaType {
    std::string_view suffix;
    const char* name;
};

constexpr std::array<MediaType, 9> kMediaTypes = {{{".html", "text/html; charset=utf-8"},
                                                   {".htm", "text/html; charset=utf-8"},
                                                   {".css", "text/css"},
                                                   {".js", "text/javascript"},
                                                   {".svg", "image/svg+xml"},
                                                   {".png", "image/png"},
                                                   {".jpg", "image/jpeg"},
                                                   {".json", "application/json"},
                                                   {".txt", "text/plain; charset=utf-8"}}};

struct Page {
    std::string application;
    std::string file;
};

bool EndsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

const char* MediaTypeOf(std::string_view file)
{
    const auto type = std::find_if(kMediaTypes.begin(), kMediaTypes.end(),
                                   [&](const MediaType& known) { return EndsWith(file, known.suffix); });
    return type == kMediaTypes.end() ? "application/octet-stream" : type->name;
}

// The value of the parameter "path", still encoded.
std::optional<std::string_view> PathParameter(std::string_view query)
{
    constexpr std::string_view name = "path=";
    while (!query.empty()) {
        const std::string_view field = query.substr(0, query.find('&'));
        if (field.substr(0, name.size()) == name) {
            return field.substr(name.size());
        }
        query.remove_prefix(std::min(field.size() + 1, query.size()));
    }
    return std::nullopt;
}

// The text with %XX decoded; nothing when an escape is malformed or stands for a NUL byte.
std::optional<std::string> DecodePercent(std::string_view text)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        unsigned char byte = 0;
        const char* digits = text.data() + i + 1;
        if (text.size() - i < 3 || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2 ||
            byte == 0) {
            return std::nullopt;
        }
        decoded += static_cast<char>(byte);
        i += 2;
    }
    return decoded;
}

bool IsPlainSegment(std::string_view segment)
{
    return !segment.empty() && segment != "." && segment != "..";
}

bool HasOnlyPlainSegments(std::string_view path)
{
    for (;;) {
        const std::size_t slash = path.find('/');
        if (!IsPlainSegment(path.substr(0, slash))) {
            return false;
        }
        if (slash == std::string_view::npos) {
            return true;
        }
        path.remove_prefix(slash + 1);
    }
}

std::optional<Page> PageOf(std::string_view query)
{
    const auto encoded = PathParameter(query);
    const auto path = encoded ? DecodePercent(*encoded) : std::nullopt;
    const std::size_t slash = path ? path->find('/') : std::string::npos;
    if (slash == std::string::npos || !HasOnlyPlainSegments(*path)) {
        return std::nullopt;
    }
    return Page{path->substr(0, slash), path->substr(slash + 1)};
}

// Opens the page's file; an invalid descriptor when it is no readable regular file below the html directory.
UniqueFd Open(const Page& page)
{
    const std::string root = "/home/" + page.application + "/html/";
    std::array<char, PATH_MAX> real{};
    if (realpath((root + page.file).c_str(), real.data()) == nullptr ||
        std::string_view(real.data()).substr(0, root.size()) != root) {
        return UniqueFd();
    }
    UniqueFd file(open(real.data(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    const bool regular = fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
    return regular ? std::move(file) : UniqueFd();
}

bool WriteAll(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool Copy(int file)
{
    std::vector<char> block(kBlock);
    for (;;) {
        const ssize_t size = read(file, block.data(), block.size());
        if (size <= 0) {
            return size == 0;
        }
        if (!WriteAll({block.data(), static_cast<std::size_t>(size)})) {
            return false;
        }
    }
}

bool Refuse(const char* status, const char* text)
{
    return WriteAll(std::string("Status: ") + status + "\r\nContent-Type: text/html; charset=utf-8\r\n\r\n" +
                    "<!DOCTYPE html>\n<title>" + text + "</title>\n<p>" + text + "</p>\n");
}

bool Answer(std::string_view query)
{
    const auto page = PageOf(query);
    if (!page) {
        return Refuse("400 Bad Request", "No page is named");
    }
    const UniqueFd file = Open(*page);
    if (!file) {
        return Refuse("404 Not Found", "There is no such page");
    }
    return WriteAll(std::string("Content-Type: ") + MediaTypeOf(page->file) + "\r\n\r\n") && Copy(file.Get());
}

} // namespace

int main()
{
    const char* query = std::getenv("QUERY_STRING");
    return Answer(query == nullptr ? "" : query) ? EXIT_SUCCESS : EXIT_FAILURE;
}
