// What the sample applications need to answer a browser: form data, escaping, money and a page frame.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace samples {

using Form = std::map<std::string, std::string>;

// The fields of URL-encoded form data, "a=1&b=two+words". Of a repeated field the last value counts.
Form ParseForm(std::string_view encoded);

// The text with the characters that mean something in HTML replaced.
std::string EscapeHtml(std::string_view text);

// An amount such as "12", "12.5" or "12,50" in cents; nothing when the text is no amount, is zero or has more
// than six digits before the separator.
std::optional<int> ParseCents(std::string_view text);

// Cents as "12.50".
std::string FormatCents(int cents);

// Pieces of a page: a raised card around HTML, a link that looks like a button with a plain caption.
std::string Card(std::string_view content);
std::string Button(std::string_view address, std::string_view caption);

// A whole CGI response: header and an HTML page with the terminal's look. The title is plain text, the body
// HTML; back is the address of the link in the page's header.
std::string Page(std::string_view title, std::string_view back, std::string_view body);

} // namespace samples
