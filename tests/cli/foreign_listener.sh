#!/bin/sh
# foreign_listener.sh BINARY: an add refused because another user listens on
# the Transfer Agent's port, with the listener named from /etc/passwd when it
# is there. Needs real root (to listen as another uid in a private network
# namespace); skipped (77) otherwise.
set -u
tool=$1
python=/usr/bin/python3
[ "$(id -u)" -eq 0 ] && [ -x "$python" ] && command -v setpriv >/dev/null &&
    unshare -n true 2>/dev/null || exit 77
key=$(printf 'k%.0s' $(seq 76))
status=0
# uid, how the message names it
for case in "65534: (nobody)" "4242:"; do
    uid=${case%%:*} named=${case#*:}
    expected="Not sending the API key: the socket listening on 127.0.0.1:11038 belongs to uid\
 $uid$named, not to root or to you. If that is the Transfer Agent, allow it with --agent-uid\
 $uid or SYLVANE_AGENT_UID=$uid."
    got=$(unshare -n sh -c '
        ip link set lo up
        setpriv --reuid="$1" --regid=65534 --clear-groups "$2" -c "
import socket, time
s = socket.socket(); s.bind((\"127.0.0.1\", 11038)); s.listen(); time.sleep(5)" &
        for _ in $(seq 50); do grep -q ":2B1E .* 0A " /proc/net/tcp && break; sleep 0.1; done
        "$3" -a web1 -p 127.0.0.1:443 -k "$4" 2>&1; echo "status $?"
        kill $!' sh "$uid" "$python" "$tool" "$key")
    if [ "$got" != "$expected
status 1" ]; then
        printf 'FAIL uid %s:\n%s\n' "$uid" "$got"
        status=1
    fi
done
exit $status
