#pragma once

namespace kxbench {

enum class Floor {
    ParseAndLook, ///< parses each app.conf and asks for the same links and states of files
    Publish,      ///< and looks up accounts, and sets owner and mode of the published directories
};

/// Does in plain C what enumerating the applications cannot do without. Throws when a file cannot be parsed.
void RunFloor(int applications, Floor floor);

} // namespace kxbench
