#!/usr/bin/env bash
# fault_injection.sh WORKER FLASH_DIR: stops or fails, one after the other, every system call that a use of the
# configuration store makes on the configuration, the lock and the flash copy, and checks what is left.
# WORKER is the program store_worker; FLASH_DIR is the flash area it was built for.
set -u
worker=$1 flash=$2
command -v strace >/dev/null || { echo "fault_injection: install strace" >&2; exit 1; }
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
root=$work/device faults=0 cases=0
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=0"  # the leak check cannot run below strace

old=$'system.flash.cycles=41\nvideo.bitrate=1024\n'
set=$'system.flash.cycles=41\nvideo.bitrate=2048\n'
counted=$'system.flash.cycles=42\nvideo.bitrate=2048\n'

fail() { echo "FAILED: $context: $*"; faults=$((faults + 1)); }
content() { [ -e "$1" ] && { cat "$1"; echo .; } | sed '$ s/\.$//'; }
content_is() {  # content_is FILE TEXT...: whether the file holds one of the texts, to the last byte
    local file=$1 text; shift
    for text; do printf %s "$text" | cmp -s - "$file" && return; done
    return 1
}
prepare() {  # prepare FLASH: a device whose flash area is "missing" or "old"
    rm -rf "$root"; mkdir -p "$root/tmp"
    printf %s "$old" >"$root/tmp/system.cfg"; chmod 644 "$root/tmp/system.cfg"
    [ "$(id -u)" -ne 0 ] || chown 1:1 "$root/tmp/system.cfg"
    [ "$1" = missing ] || { mkdir -p "$root$flash"; printf %s "$old" >"$root$flash/system.cfg"; }
}
run() {  # run STRACE_OPTION...: the worker's steps go to $steps, its messages to $messages, its end to $status
    # The outer redirection is for the shell's own report of a killed program.
    { strace "$@" "$worker" "$root" video.bitrate 2048 >"$work/steps" 2>"$work/messages"; } 2>/dev/null
    status=$?
    steps=$(paste -sd' ' "$work/steps")
    messages=$(sed -E 's/^[^ ]+ korvo_variant_utils [^ ]+ //; s/cfg\.[0-9]+/cfg.PID/' "$work/messages")
}

# The calls to break, one a line: STAGE CALL NUMBER ROLE, where NUMBER counts all calls of that name in the process.
# A stage is a step of the worker; its close is split where the counter is stored, the file written, the flash saved.
list_calls() {
    run -y -o "$work/trace"
    awk -v root="$root/" -v stage=init '
        function role(line) {
            if (line ~ /system\.cfg\.lock/) return "lock"
            if (line ~ /system\.cfg\.(tmp|[0-9]+)/) return "temporary"
            return line ~ /\/system\.cfg/ ? "file" : "folder"
        }
        { call = $0; sub(/\(.*/, "", call); number[call]++ }
        /^write\(1.*"init=/ { stage = "set" }
        /^write\(1.*"set=/ { stage = "count" }
        /^write\(1.*"close=/ { stage = "end" }
        index($0, root) && call !~ /^(execve|f?access(at)?2?)$/ {
            what = role($0)
            if (/F_UNLCK|LOCK_UN/) what = "unlock"
            print (call == "fcntl" && what == "unlock" ? "release" : stage), call, number[call], what
        }
        /^rename/ { stage = stage == "count" ? "write" : stage == "write" ? "flash" : stage }' "$work/trace"
}

# What the worker must report when a call fails with error number $5: the steps, then the messages.
expect() {  # expect STAGE CALL ROLE ERROR_NUMBER
    local stage=$1 call=$2 role=$3 number=$4 cause=
    want_steps='init=1 set=1 close=1' want_messages=
    # What is closed after reading or locking, and who owns the file, cannot spoil anything.
    case $stage/$call/$role in
        end/* | */close/file | */close/folder | */close/lock | */lchown/* | flash/flock/unlock) return ;;
        init/*/lock) want_steps='init=0'
            want_messages="init: Failed to acquire system.cfg mutex, res=$number"; return ;;
        init/open*) cause='read: Failed to open system.cfg file' ;;
        init/*) cause='read: Failed to read system.cfg file' ;;
        release/*) want_steps='init=1 set=1 close=0'
            want_messages="close: Failed to release system.cfg mutex, res=$number"; return ;;
        flash/*) want_steps='init=1 set=1 close=0' want_messages='close: Failed to save to flash'; return ;;
        */open*) cause='write: Failed to open system.cfg' ;;
        */rename*) cause='write: Failed to move /tmp/system.cfg.PID to /tmp/system.cfg' ;;
        *) cause='write: Failed to write system.cfg' ;;
    esac
    case $stage in
        init) want_steps='init=0' want_messages="$cause"$'\n''init: Failed to read system.cfg into variant' ;;
        set) want_steps='init=1 set=0 close=1' want_messages=$cause ;;
        count) want_steps='init=1 set=1 close=0' want_messages="$cause"$'\n''close: Failed to read flash write cycles' ;;
        write) want_steps='init=1 set=1 close=0'
            want_messages="$cause"$'\n''close: Failed to write system.cfg from variant' ;;
    esac
}

check_whole() {  # whatever happened, the two files are whole, and the store can be used
    content_is "$root/tmp/system.cfg" "$old" "$set" "$counted" || fail "the configuration: $(content "$root/tmp/system.cfg")"
    [ "$(stat -c %a "$root/tmp/system.cfg")" = 644 ] || fail "the configuration's mode changed"
    if [ -e "$root$flash/system.cfg" ] || [ "$1" = old ]; then
        content_is "$root$flash/system.cfg" "$old" "$counted" || fail "the flash copy: $(content "$root$flash/system.cfg")"
    fi
    timeout 10 "$worker" "$root" video.bitrate 4096 >"$work/next" 2>&1 || fail "the next use: $(cat "$work/next")"
    cmp -s "$root/tmp/system.cfg" "$root$flash/system.cfg" || fail "the next use saved something else"
    grep -q '^video.bitrate=4096$' "$root$flash/system.cfg" || fail "the next use lost its value"
}

inject() {  # inject FLASH STAGE CALL NUMBER ROLE FAULT ERROR_NUMBER
    local flash_state=$1 stage=$2 call=$3 number=$4 role=$5 fault=$6 error=$7
    context="$call $number ($stage, $role, flash $flash_state): $fault" cases=$((cases + 1))
    prepare "$flash_state"
    run -o "$work/trace" -e "inject=$call:$fault:when=$number"
    if [ "$fault" = signal=KILL ]; then
        [ "$status" -eq 137 ] || fail "not killed, but ended with $status"
    else
        grep -q INJECTED "$work/trace" || fail "not injected"
        if [ "$error" -eq 0 ]; then want_steps='init=1 set=1 close=1' want_messages=; else expect "$stage" "$call" "$role" "$error"; fi
        [ "$steps" = "$want_steps" ] || fail "steps: $steps; expected: $want_steps"
        [ "$messages" = "$want_messages" ] || fail "messages: $messages; expected: $want_messages"
        [ "$status" -le 1 ] || fail "ended with $status: the lock is still held"
        [ -z "$(find "$root" -name '*.tmp' -o -name 'system.cfg.[0-9]*')" ] || fail "left a temporary file"
    fi
    check_whole "$flash_state"
}

for flash_state in missing old; do
    context="no fault, flash $flash_state"
    prepare "$flash_state"
    list_calls >"$work/calls"
    [ "$steps" = 'init=1 set=1 close=1' ] && [ -z "$messages" ] || fail "steps: $steps, messages: $messages"
    content_is "$root$flash/system.cfg" "$counted" || fail "the flash copy: $(content "$root$flash/system.cfg")"
    # The cases are as good as this list, so it must hold what is known to be called.
    for needed in 'set .*rename' 'set write' 'count .*rename' 'write .*rename' 'flash fsync' 'flash .*rename' 'release fcntl'; do
        grep -q "^$needed" "$work/calls" || fail "no such call seen: $needed"
    done
    while read -r stage call number role; do
        inject "$flash_state" "$stage" "$call" "$number" "$role" signal=KILL 0
        inject "$flash_state" "$stage" "$call" "$number" "$role" error=EIO 5
        inject "$flash_state" "$stage" "$call" "$number" "$role" error=ENOSPC 28
        case $call in  # an interruption is carried on; a close is over all the same
            read | write | fcntl | flock | fsync | close)
                inject "$flash_state" "$stage" "$call" "$number" "$role" error=EINTR 0 ;;
        esac
    done <"$work/calls"
done
echo "$cases faults injected, $faults checks failed"
[ "$faults" -eq 0 ] && [ "$cases" -gt 0 ]
