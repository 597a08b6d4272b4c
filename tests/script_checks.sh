# Sourced by the test scripts: the pass and failure counters and the checks
# that count. Output of a command run by `expect` goes to $work/out and
# $work/err, so the script sets $work first.
passed=0
failed=0
ok() { passed=$((passed + 1)); }
bad() { failed=$((failed + 1)); echo "FAIL: $*" >&2; }
# expect CODE COMMAND...: the exit status must be CODE
expect() {
  local code=$1; shift
  local got=0
  "$@" >"$work/out" 2>"$work/err" || got=$?
  if [ "$got" = "$code" ]; then ok; else bad "exit $got, wanted $code: $* :: $(head -c 300 "$work/err")"; fi
}
# contains FILE TEXT: the file holds the text
contains() { if grep -qF -- "$2" "$1"; then ok; else bad "'$2' not in $1: $(head -c 300 "$1")"; fi; }
# same A B WHAT: the two texts are equal
same() { if [ "$1" = "$2" ]; then ok; else bad "'$1' != '$2' ($3)"; fi; }
