#!/usr/bin/env bash
# Runs the Python set-up commands of the README as written, in a copy of the source tree, and imports the
# installed package from elsewhere. No package index is reachable, so this also shows that none is needed.
#
#   install_from_repository.sh SOURCE_DIR
set -euo pipefail
root="$1"

# The first fenced code block after the "## Python" heading.
commands=$(awk '/^## Python$/ { section = 1; next } section && /^```/ { if (inside) exit; inside = 1; next }
                inside { print }' "$root/README.md")
if [ -z "$commands" ]; then
  echo "README.md has no Python set-up commands" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/repository"
(cd "$root" && cp -r CMakeLists.txt LICENSE include src python scripts "$work/repository/")
rm -rf "$work/repository/python/build" "$work/repository/python/"*.egg-info

echo "Running in a copy of the repository:"
echo "$commands"
(cd "$work/repository" && env -u PYTHONPATH bash -euo pipefail -c "$commands")

# The package is the installed one, usable from any directory.
cd "$work"
location=$("$work/repository/.venv/bin/python3" -c "import kovra; print(kovra.__file__)")
case "$location" in
  "$work/repository/.venv/"*) echo "installed: $location" ;;
  *) echo "kovra imported from $location, not from the environment" >&2; exit 1 ;;
esac
