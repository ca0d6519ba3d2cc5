# Looking into a firmware image. Sourced; $image is the archive, $parts a folder for what is taken out.
maker_key=/etc/router/firmware-key.pub

checksum_of() {
    openssl dgst -sha256 -r "$1" | cut -c1-64
}

has_part() {
    tar -tf "$image" "$1" >/dev/null 2>&1
}

unpack() {
    tar -xOf "$image" "$1" >"$parts/$1" 2>/dev/null
}

is_signed() {
    tar -xOf "$image" "$1" |
        openssl dgst -sha256 -verify $maker_key -signature "$parts/$1.sig" >/dev/null 2>&1
}

of_manifest() {
    jq -r "$1" "$parts/manifest.json"
}

is_number() {
    case $1 in
        '' | *[!0-9]*) return 1 ;;
    esac
}

is_older_or_same() {
    [ "$(printf '%s\n%s\n' "$1" "$2" | sort -t. -n -k1,1 -k2,2 -k3,3 | head -n 1)" = "$1" ]
}
