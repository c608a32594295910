#!/usr/bin/env bash
# The manual page and --help name the same parameters, the plug-in knows them, and the page is well formed.
. "$(dirname -- "$0")/lib.sh"

page=${TESSEL_NBDKIT_MANUAL:?the path of the manual page}
LD_PRELOAD=${TESSEL_NBDKIT_PRELOAD-} nbdkit --help "$TESSEL_NBDKIT_PLUGIN" >help
sed -n 's/^\[\?\([a-z]*\)=.*/\1/p' help | sort >helped
[[ $(wc -l <helped) -ge 5 ]] || fail "--help should name parameters: $(cat help)"

MANWIDTH=110 man -l --warnings "$page" >shown 2>warnings
[[ ! -s warnings ]] || fail "man warns: $(cat warnings)"
sed -n '/^PARAMETERS/,/^WHAT CLIENTS/s/^ \{7\}\[\?\([a-z]*\)=.*/\1/p' shown | sort >told
same helped told
sed -n '/^SYNOPSIS/,/^EXAMPLES/p' shown | grep -o '[a-z]*\]\?=[A-Z]*' | sed 's/[]=].*//' | sort >summed
same helped summed
grep -qF "tessel $(LD_PRELOAD=${TESSEL_NBDKIT_PRELOAD-} nbdkit --dump-plugin "$TESSEL_NBDKIT_PLUGIN" |
    sed -n 's/^version=//p')" shown || fail "the page is of another version"

# The message about a parameter that is unknown names the others.
(nbdkit_runs nothing=1) >"$out" 2>"$err" </dev/null && fail "an unknown parameter"
while read -r parameter; do
    error_holds "$parameter"
done <helped

# nbdkit finds the plug-in by its name.
[[ ${TESSEL_NBDKIT_PLUGIN##*/} == nbdkit-tessel-plugin.so ]] || fail "the plug-in's name"
