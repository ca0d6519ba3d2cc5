# What the services of this router share. Sourced; $service names the one that sources it.
#
# The journal tells in order what every service did, for people and tests outside: one line each, the
# machine's time in seconds, the service and what it did, separated by tabs.
#
# A service can be given faults, one a line in a file of its name:
#     slow SECONDS    waits before it does what it was asked for
#     held REASON     waits as long as this line stands there
#     fail STATUS     ends with that status and does nothing
# A service that knows other words says so.
configuration=/var/volatile/config/config.running
faults=/mnt/outside/faults

journal() {
    printf '%s\t%s\t%s\n' "$(LD_PRELOAD='' date +%s)" "$service" "$*" >>/mnt/outside/journal
}

# fault WORD: what the line of that word says; fails when there is none.
fault() {
    [ -e "$faults/$service" ] || return 1
    value=$(sed -n "s/^$1 //p" "$faults/$service")
    [ -n "$value" ] && echo "$value"
}

meet_faults() {
    seconds=$(fault slow) && sleep "$seconds"
    while fault held >/dev/null; do
        usleep 20000
    done
    status=$(fault fail) || return 0
    journal "$* failed, status $status"
    exit "$status"
}

# The time of this router goes as a file outside says, when there is one: for sleeps and clocks of this
# process and its children.
go_by_router_clock() {
    if [ -e /mnt/outside/clock ] && [ -z "$LD_PRELOAD" ]; then
        export LD_PRELOAD=/usr/lib/libfaketimeMT.so.1 FAKETIME_TIMESTAMP_FILE=/mnt/outside/clock
        export FAKETIME_NO_CACHE=1
        exec "$0" "$@"
    fi
}
