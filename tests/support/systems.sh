# What scripts that test the program know of the system that it was built for. A program for Windows is run by Wine, for
# which the root of this system is the drive Z: and the links of this system are the files that they lead to.

# Whether it is a system with POSIX's links, permissions, signals and limits.
posix() {
    [[ ${TESSEL_SYSTEM:-posix} == posix ]]
}

# Whether programs are told which parts of a file are holes. Windows does that, Wine does not.
tells_holes() {
    posix
}

# keeps_others_out FILE: it has the permissions 640. Of Windows' lists Wine keeps only for whom there is nothing at all.
keeps_others_out() {
    local mode
    mode=$(stat -c %a -- "$1")
    if posix; then
        [[ $mode == 640 ]]
    else
        [[ $mode == *0 ]]
    fi
}

# with_slashes FILE...: paths in what the program told become those of this system. JSON is known by how it begins.
with_slashes() {
    ! posix || return 0
    local file
    for file in "$@"; do
        if [[ $(head -c 1 -- "$file" | tr -d '\0') == ['{['] ]]; then
            sed -i -E 's#[Zz]:(\\\\|/)#/#g; s#\\\\#/#g' "$file"
        else
            sed -i -E 's#[Zz]:[\\/]#/#g; s#\\#/#g' "$file"
        fi
    done
}

# The exit code of the program when a signal, or the end of a pipe's reader, ended it: 128 and the signal's number, or
# the last byte of what Windows calls that.
code_of_signal() {
    if posix; then
        echo $((128 + $(kill -l "$1")))
    elif [[ $1 == PIPE ]]; then
        echo $((0x4B))
    else
        echo $((0x3A))
    fi
}
