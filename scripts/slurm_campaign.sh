#!/usr/bin/env bash
# Runs the small test campaign (tests/workflow/campaign_workflow_test.py) through a real Slurm: starts a one-node
# cluster on this machine (munged, slurmctld and slurmd as root, every file in a temporary folder, ports 16817 and
# 16818), submits the campaign with workflow/profiles/slurm, then stops every daemon it started.
# Installs Debian's slurm-wlm and munge when missing. Needs root and an existing build (scripts/build.sh).
# Usage: scripts/slurm_campaign.sh [BUILD_DIR]    KOVRA_SLURM_KEEP=1 keeps the temporary folder (logs, outputs).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$(cd "${1:-$root/build}" && pwd)"

if [ "$(id -u)" -ne 0 ]; then
  echo "slurm_campaign.sh: the cluster daemons run as root; run this as root" >&2
  exit 1
fi
for tool in kovra_brantel kovra_inspect kovra_simulate; do
  [ -x "$build/$tool" ] || { echo "slurm_campaign.sh: $build/$tool missing; run scripts/build.sh first" >&2; exit 1; }
done
"$root/scripts/setup.sh" slurm-wlm munge

work="$(mktemp -d /tmp/kovra_slurm.XXXXXX)"
chmod 700 "$work"
pids=()
stop_cluster() {
  local status=$?
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  if [ "${KOVRA_SLURM_KEEP:-0}" = 1 ]; then
    echo "slurm_campaign.sh: logs and outputs kept in $work"
  else
    rm -rf "$work"
  fi
  exit "$status"
}
trap stop_cluster EXIT

# munge: a key of our own and a socket in the temporary folder, so a system munged is neither needed nor touched.
mkdir -m 700 "$work/munge"
mungekey --create --keyfile="$work/munge/munge.key"
munged --foreground --force --key-file="$work/munge/munge.key" --socket="$work/munge/munge.sock" \
  --pid-file="$work/munge/munged.pid" --log-file="$work/munge/munged.log" --seed-file="$work/munge/munged.seed" \
  2>>"$work/munge/munged.log" &
pids+=($!)
for _ in $(seq 50); do [ -S "$work/munge/munge.sock" ] && break; sleep 0.1; done

host="$(hostname -s)"
node="$(slurmd -C | head -n 1)"
mkdir -p "$work/state" "$work/spool"
cat > "$work/slurm.conf" <<EOF
ClusterName=kovra
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=16817
SlurmdPort=16818
AuthType=auth/munge
AuthInfo=socket=$work/munge/munge.sock
CredType=cred/munge
SlurmUser=root
SlurmdUser=root
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
MpiDefault=none
ReturnToService=2
$node NodeAddr=127.0.0.1 State=UNKNOWN
PartitionName=campaign Nodes=$host Default=YES MaxTime=INFINITE State=UP
EOF
export SLURM_CONF="$work/slurm.conf"
# Snakemake's Slurm support looks the user up in USER, which a root shell may not set.
export USER="${USER:-$(id -un)}"

slurmctld -D -i -f "$SLURM_CONF" 2>>"$work/slurmctld.log" &
pids+=($!)
slurmd -D -f "$SLURM_CONF" 2>>"$work/slurmd.log" &
pids+=($!)

state=""
for _ in $(seq 60); do
  state="$(sinfo -h -N -o %T 2>/dev/null || true)"
  [ "$state" = idle ] && break
  sleep 1
done
if [ "$state" != idle ]; then
  echo "slurm_campaign.sh: the node did not become idle (state: '${state:-none}'); see $work/*.log" >&2
  KOVRA_SLURM_KEEP=1
  exit 1
fi
echo "slurm_campaign.sh: one-node cluster up: $(sinfo -h -o '%P %D %c %m %T')"

python3 "$root/tests/workflow/campaign_workflow_test.py" "$root" "$build" \
  --profile "$root/workflow/profiles/slurm" --keep "$work/campaign"
echo "slurm_campaign.sh: Slurm jobs run (jobs stay listed for five minutes after they end):"
squeue -h -t all -o '%i %j %T %M %l' | sort -n
