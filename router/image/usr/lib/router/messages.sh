# For services that are asked by messages of the broker and answer them. Sourced after service.sh.
SUCCESS=200
MALFORMED=4 # status of a deed whose message lacks something

# serve DEED COMMAND...: runs the deed for each message on v1/device/cmd/COMMAND/apply, with $command and
# $message set, and answers; for ever, tried again until the broker is there.
serve() {
    deed=$1
    shift
    for name in "$@"; do
        set -- "$@" -t "v1/device/cmd/$name/apply"
        shift
    done
    while :; do
        mosquitto_sub -h localhost -i "$service" -F %j "$@" 2>/dev/null | handle_all
        usleep 200000
    done
}

handle_all() {
    while read -r envelope; do
        command=$(echo "$envelope" | jq -r '.topic | split("/")[3]')
        message=$(echo "$envelope" | jq -c '.payload | fromjson' 2>/dev/null) || continue
        handle
    done
}

handle() {
    job=$(member .jobId)
    journal "$command${job:+ for job $job}"
    seconds=$(fault slow) && sleep "$seconds"
    while fault held >/dev/null; do
        usleep 20000
    done
    if fault fail >/dev/null; then
        rc=$(fault fail)
    else
        "$deed"
        rc=$(rc_of $?)
    fi
    [ "$rc" = $SUCCESS ] || journal "$command failed, rc $rc"
    echo "$message" | jq -c --argjson rc "$rc" '{session, rc: $rc} + (if has("jobId") then {jobId} else {} end)' |
        mosquitto_pub -h localhost -t "v1/device/cmd/$command/ack" -s
}

rc_of() {
    case $1 in
        0) echo $SUCCESS ;;
        "$MALFORMED") echo 400 ;;
        *) echo 500 ;;
    esac
}

# A text of the message, empty when it has none there.
member() {
    echo "$message" | jq -r "$1 // empty" 2>/dev/null
}
