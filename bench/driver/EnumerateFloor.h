#pragma once

namespace kxbench {

/// Does in plain C what enumerating the applications cannot do without: parses each app.conf with libxml2,
/// sets owner and mode of the web tree's directories and reads the links. Throws when one of that fails.
void RunFloor(int applications);

} // namespace kxbench
