# Sourced by the vmattach end-to-end scripts: counts checks and reports them in the plain
# "N passed, N failed" form.
passed=0
failed=0

check() {  # check NAME CONDITION...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
  fi
}

finish() {  # finish LABEL: prints the tally and exits non-zero when a check failed
  echo "$1: $passed passed, $failed failed"
  test "$failed" -eq 0
}
