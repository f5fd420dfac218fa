#!/bin/bash
# A developer's own application on the desk terminal: its mistakes are told, and its changes take effect.
set -euo pipefail
# shellcheck source=prompt.sh disable=SC1091
. "$(dirname "$0")/prompt.sh"

readonly app=/tmp/myapp

# describe ELEMENT...: writes the application's app.conf, an element a line
describe() {
    printf '%s\n' '<application>' "$@" '</application>' >"$app/app.conf"
}

runs_as() {
    [[ $(ps -C "$1" -o user=) = "$2" ]]
}

mkdir -p "$app/html" "$app/bin"
printf '#!/bin/sh\nexec sleep infinity\n' >"$app/bin/ticker"
echo '<!DOCTYPE html><title>Mine</title>' >"$app/html/index.html"
describe '<prompts>/etc/passwd</prompts>' '<show_on_boot>html/none.html</show_on_boot>'

# The mistakes are told, as the daemon logs them too, and do not keep the terminal from coming up.
start_terminal --app "$app"
within shown "app.conf:2: error: <prompts>: File '/etc/passwd' isn't located in '/home/myapp' directory. Ignored."
within shown "app.conf:3: error: <show_on_boot>: '/home/myapp/html/none.html' does not exist"
within shown "Server:PathToURI.*Requested form doesn't exist.*/home/myapp/html/none.html"
! shown 'broken' || fail 'a sample has its own mistakes shown'

look_anew
describe '<run_on_boot>bin/ticker</run_on_boot>' '<show_on_boot>html/index.html</show_on_boot>'
within shown "program '/home/myapp/bin/ticker' is not executable"

look_anew
chmod +x "$app/bin/ticker"
within shown 'myapp: errors: 0, warnings: 0'
within shown '> shown +Mine +http://localhost/cgi-bin/page/show\?path=myapp/index.html'
within runs_as sleep app5

look_anew
echo '<!DOCTYPE html><title>Mine, changed</title>' >"$app/html/index.html"
within shown '> shown +Mine, changed'

pkill -x screen
within shown '> the screen has ended'
stop_terminal
