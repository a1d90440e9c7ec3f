#!/usr/bin/env bash
# Installs the Debian packages the project needs, but only those that are missing.
# Extra package names given as arguments are installed too (scripts/slurm_campaign.sh asks for Slurm this way).
set -euo pipefail

packages=(cmake g++ make libgtest-dev libgmock-dev rapidjson-dev libhdf5-dev libpng-dev libtiff-dev pkg-config time
          snakemake python3 python3-dev python3-numpy python3-h5py pybind11-dev python3-pybind11 python3-venv
          python3-setuptools python3-wheel python3-matplotlib python3-tifffile "$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
