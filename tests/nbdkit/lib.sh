# Helpers for the scripts that test the plug-in, on top of those for the program. One server at a time, on $uri.
. "$(dirname -- "${BASH_SOURCE[0]}")/../cli/lib.sh"
: "${TESSEL_NBDKIT_PLUGIN:?the path of the plug-in}"

# nbdkit itself loses memory when it is told to end while a client goes; valgrind.sh tells that from the plug-in's.
export ASAN_OPTIONS=${ASAN_OPTIONS-}:detect_leaks=0

server=
said=$base/said
uri="nbd+unix:///?socket=$base/socket"
nbdkit=(nbdkit)
trap 'end_server -KILL; rm -rf -- "$base"' EXIT

end_server() {
    if [[ -n $server ]]; then
        kill "$1" "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
        server=
    fi
}

# nbdkit_runs ARGUMENT...: nbdkit with the plug-in and these parameters; options of nbdkit itself stand in $nbdkit.
nbdkit_runs() {
    last="nbdkit $*"
    LD_PRELOAD=${TESSEL_NBDKIT_PRELOAD-} exec "${nbdkit[@]}" -f -U "$base/socket" -P "$base/pid" \
        "$TESSEL_NBDKIT_PLUGIN" "$@"
}

# serve PARAMETER...: a server runs, and waits for clients.
serve() {
    rm -f -- "$base/pid" "$base/socket"
    last="nbdkit $*"
    nbdkit_runs "$@" >"$said" 2>&1 </dev/null &
    wait_for_server $!
}

# wait_for_server PID: until it serves.
wait_for_server() {
    local i
    server=$1
    for ((i = 0; i < 2400; i++)); do
        [[ ! -s $base/pid ]] || return 0
        kill -0 "$server" 2>/dev/null || fail "nbdkit did not start: $(cat -- "$said")"
        sleep 0.05
    done
    fail "nbdkit does not get ready"
}

# The server ends in order.
end_in_order() {
    local code=0
    kill "$server"
    wait "$server" || code=$?
    server=
    ((code == 0)) || fail "the server's exit code is $code; it says: $(cat -- "$said")"
}

# stop: the server ends in order, and has had nothing to say.
stop() {
    end_in_order
    [[ ! -s $said ]] || fail "the server should have said nothing, not: $(cat -- "$said")"
}

# stop_after TEXT: the server ends in order, and has said something that holds TEXT.
stop_after() {
    end_in_order
    grep -qF -- "$1" "$said" || fail "the server should have said: $1; it said: $(cat -- "$said")"
}

# refuses TEXT PARAMETER...: nbdkit does not start, and says only this line behind "nbdkit: error: ".
refuses() {
    local text=$1 code=0
    shift
    (nbdkit_runs "$@") >"$out" 2>"$err" </dev/null || code=$?
    last="nbdkit $*"
    ((code == 1)) || fail "the exit code is $code, not 1"
    error_is "nbdkit: error: $text"
}

# The same, in nbdkit's own words, which may change.
refuses_somehow() {
    local code=0
    (nbdkit_runs "$@") >"$out" 2>"$err" </dev/null || code=$?
    last="nbdkit $*"
    ((code == 1)) || fail "the exit code is $code, not 1"
    [[ $(wc -l <"$err") -eq 1 && $(head -c 15 -- "$err") == "nbdkit: error: " ]] || fail "it should say one line"
}

# client COMMAND...: a client that succeeds.
client() {
    last="$*"
    "$@" >"$base/client" 2>&1 || {
        cat -- "$base/client" >&2
        fail "the client failed"
    }
}

# qemu_io COMMAND...: of qemu-io, all of which succeed and find the patterns that they look for.
qemu_io() {
    local command arguments=()
    for command in "$@"; do
        arguments+=(-c "$command")
    done
    client qemu-io -f raw "${arguments[@]}" "$uri"
    ! grep -qiE 'failed|error|invalid|not supported' "$base/client" || fail "$(cat -- "$base/client")"
}

# qemu_io_fails TEXT COMMAND: the command fails so.
qemu_io_fails() {
    last="qemu-io $2"
    ! qemu-io -f raw -c "$2" "$uri" >"$base/client" 2>&1 || fail "it should fail"
    grep -qF -- "$1" "$base/client" || fail "qemu-io should say: $1; it says: $(cat -- "$base/client")"
}

# stays_connected COMMAND: of qemu-io, which then does not go, as $staying: a client that goes flushes.
stays_connected() {
    : >"$base/client"
    stdbuf -o0 qemu-io -f raw -c "$1" -c 'sleep 600000' "$uri" >"$base/client" 2>&1 &
    staying=$!
    local i
    for ((i = 0; i < 1200; i++)); do
        ! grep -q '^\(wrote\|discard\)' "$base/client" || return 0
        sleep 0.05
    done
    fail "no answer to: $1"
}

# holds IMAGE: a client reads what the raw image holds, in as many bytes.
holds() {
    rm -f -- "$base/read"
    client nbdcopy "$uri" "$base/read"
    same "$1" "$base/read"
}

# writes_alike IMAGE COMMAND...: what a client writes to the disk and to the raw image stays the same.
writes_alike() {
    local image=$1 command
    shift
    for command in "$@"; do
        qemu_io "$command"
        client qemu-io -f raw -c "$command" "$image"
        holds "$image"
    done
}

# disk_is DISK IMAGE [OPTION...]: the program finds the disk whole, and in it what the raw image holds.
disk_is() {
    local disk=$1 image=$2
    shift 2
    run 0 check "$disk" "$@"
    run 0 convert "$disk" "$base/read" --to raw --force --quiet "$@"
    same "$image" "$base/read"
}

# A raw image as make_image makes it, with the size of a disk that holds it.
make_disk_image() {
    make_image "$1" "${2:-1}"
    truncate -s $(((image_size + 65535) / 65536 * 65536)) "$1"
}
