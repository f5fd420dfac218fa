#pragma once

namespace kxbench {

/// What the floor reads app.conf with.
enum class XmlLibrary {
    Pugixml, ///< the fastest; takes what is not well-formed, and knows no document types
    Libxml2, ///< reads XML as the standard has it
};

/// Does in plain C what enumerating the applications cannot do without: parses each app.conf and asks for the
/// same links and states of files. Throws when a file cannot be parsed.
void RunFloor(int applications, XmlLibrary library);

} // namespace kxbench
