#include "Web.h"

#include <algorithm>
#include <cctype>
#include <charconv>

namespace samples {

namespace {

constexpr std::size_t kMaxWholeDigits = 6;

bool IsDigits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

int ToNumber(std::string_view digits)
{
    int value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

std::string Decode(std::string_view text)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = 0;
        const char* digits = text.data() + i + 1;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            decoded += static_cast<char>(byte);
            i += 2;
        } else {
            decoded += text[i] == '+' ? ' ' : text[i];
        }
    }
    return decoded;
}

} // namespace

Form ParseForm(std::string_view encoded)
{
    Form form;
    while (!encoded.empty()) {
        const std::string_view field = encoded.substr(0, encoded.find('&'));
        encoded.remove_prefix(std::min(field.size() + 1, encoded.size()));
        const std::size_t equals = std::min(field.find('='), field.size());
        const std::string_view value = field.substr(std::min(equals + 1, field.size()));
        form.insert_or_assign(Decode(field.substr(0, equals)), Decode(value));
    }
    return form;
}

std::string EscapeHtml(std::string_view text)
{
    static const std::map<char, std::string_view> entities = {
        {'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&#39;"}};
    std::string escaped;
    for (const char c : text) {
        const auto entity = entities.find(c);
        escaped += entity == entities.end() ? std::string_view(&c, 1) : entity->second;
    }
    return escaped;
}

std::optional<int> ParseCents(std::string_view text)
{
    const std::size_t separator = std::min(text.find_first_of(".,"), text.size());
    const std::string_view whole = text.substr(0, separator);
    const std::string_view fraction = text.substr(std::min(separator + 1, text.size()));
    const bool formed = !whole.empty() && whole.size() <= kMaxWholeDigits && fraction.size() <= 2 &&
                        IsDigits(whole) && IsDigits(fraction);
    if (!formed) {
        return std::nullopt;
    }
    const int cents = ToNumber(whole) * 100 + ToNumber(fraction) * (fraction.size() == 1 ? 10 : 1);
    return cents > 0 ? std::optional<int>(cents) : std::nullopt;
}

std::string FormatCents(int cents)
{
    const std::string fraction = std::to_string(cents % 100);
    return std::to_string(cents / 100) + (fraction.size() == 1 ? ".0" : ".") + fraction;
}

std::string Card(std::string_view content)
{
    return std::string(R"(    <div class="card">)").append(content).append("</div>\n");
}

std::string Button(std::string_view address, std::string_view caption)
{
    std::string button = R"(    <a class="button" href=")";
    button.append(EscapeHtml(address)).append(R"(">)");
    return button.append(EscapeHtml(caption)).append("</a>\n");
}

std::string Page(std::string_view title, std::string_view back, std::string_view body)
{
    const std::string escaped = EscapeHtml(title);
    std::string page = "Content-Type: text/html; charset=utf-8\r\n\r\n"
                       "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n  <meta charset=\"utf-8\">\n"
                       "  <meta name=\"viewport\" content=\"width=320\">\n"
                       "  <link rel=\"stylesheet\" href=\"/html/platform/terminal.css\">\n  <title>";
    page.append(escaped).append("</title>\n</head>\n<body>\n  <header><h1>").append(escaped);
    page.append("</h1><a href=\"").append(EscapeHtml(back)).append("\">Back</a></header>\n  <main>\n");
    return page.append(body).append("  </main>\n</body>\n</html>\n");
}

} // namespace samples
