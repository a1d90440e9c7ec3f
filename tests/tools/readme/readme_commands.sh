# Sourced by the scripts that run the README's commands as written.

# readme_block README [HEADING]: the lines of the first fenced code block of README, or of the first one after
# the line HEADING; fails with a message when there is none.
readme_block() {
  local block
  block=$(awk -v heading="${2:-}" 'heading != "" && !section { section = ($0 == heading); next }
                                   /^```/ { if (inside) exit; inside = 1; next } inside { print }' "$1")
  [ -n "$block" ] || { echo "$1 has no commands in a code block${2:+ after '$2'}" >&2; return 1; }
  printf '%s\n' "$block"
}

# make_work: a new temporary folder in $work, removed when the script exits.
make_work() {
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
}
