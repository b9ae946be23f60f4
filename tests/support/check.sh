# Shared by the command-line tests (sourced): a private temporary folder removed at exit
# (kept with KEEP=1, to look at after a failure),
# and check NAME COMMAND... that prints "ok   NAME" or "FAIL NAME" and remembers a failure
# for the script's "exit $fail".
tmp=$(mktemp -d)
trap '[ -n "${KEEP:-}" ] || rm -rf "$tmp"' EXIT
fail=0

check() { # check NAME CONDITION-COMMAND...
  local name=$1
  shift
  if "$@"; then echo "ok   $name"; else echo "FAIL $name"; fail=1; fi
}
