#!/usr/bin/env bash
# Runs the Python set-up commands of the README as written, in a copy of the source tree, and imports the
# installed package from elsewhere. No package index is reachable, so this also shows that none is needed.
#
#   install_from_repository.sh SOURCE_DIR
set -euo pipefail
root="$1"

source "$(dirname "$0")/../tools/readme/readme_commands.sh"
commands=$(readme_block "$root/README.md" "## Python")
make_work
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
