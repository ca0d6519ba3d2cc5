# The two firmware slots, and which one boots. Sourced.
#
# /var/data/boot/slot    the slot to boot, 1 or 2; 1 when there is no such file
# /var/data/boot/trial   "SLOT TRIES": a slot that has not proved itself yet, and how many boots it has left
#                        before the boot loader takes the other one. The first agent that stays alive for a
#                        while takes the file away.
# /var/data/boot/installed  "SECONDS JOB": when something was last installed, and for which job; "-" for none
# /var/data/boot/attempts   what tessard-boot has tried again, and how many times
slots=/mnt/slots
boot_files=/var/data/boot

running_slot() {
    sed -n 's/.*root=[^ ]*\([12]\)\( .*\)*$/\1/p' /proc/cmdline | grep .
}

other_slot() {
    case $(running_slot) in
        1) echo 2 ;;
        2) echo 1 ;;
        *) return 1 ;;
    esac
}

is_boot_environment_valid() {
    [ -e $boot_files/slot ] || return 0
    case $(cat $boot_files/slot) in
        1 | 2) ;;
        *) return 1 ;;
    esac
}

# Flushes the file system of a path, unless it is a folder of the machine's own disk: the machine goes on,
# and flushing all of it takes long.
flush() {
    [ "$(stat -c %d "$1")" = "$(stat -c %d /mnt/outside)" ] || sync -f "$1"
}

# The next boots are of that slot, as long as it has tries left.
try_slot() {
    write_boot_file trial "$1 3"
    write_boot_file slot "$1"
}

write_boot_file() {
    echo "$2" >"$boot_files/.$1" && mv "$boot_files/.$1" "$boot_files/$1"
    flush $boot_files
}

# write_mark NAME TEXT: whole, and on the flash when this returns.
write_mark() {
    echo "$2" >"/var/data/orv/.$1" && mv "/var/data/orv/.$1" "/var/data/orv/$1"
    flush /var/data/orv
}

confirm_slot() {
    rm -f $boot_files/trial
}
