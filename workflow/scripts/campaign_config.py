"""Campaign settings: checked once, before any job starts, and turned into the tools' command lines.

Only the standard library is used here, so the checks run under any Python 3 (the Snakefile imports this module
while it is parsed, and the tests import it directly).
"""


import json
import math
import os
import shutil
from dataclasses import dataclass
from typing import Any, Mapping

ALGORITHMS = (
    "default",
    "noBranchChain_direct",
    "noBranchChain_ghostPhoton_direct",
    "forwardChain_photonBuildup",
    "fullChain_direct",
)

# Every key the campaign understands; config/config.yaml lists them all with their defaults.
KNOWN_KEYS = (
    "input",
    "output",
    "dSpace_px",
    "dTime_s",
    "dTime_ext",
    "durationMax_s",
    "algorithm",
    "paramsFile",
    "bin",
    "mapSize_px",
    "tofBins",
    "tofMax_s",
    "stackBinning_px",
    "threadsPerFile",
    "layout",
    "skipDamaged",
)

PHOTON_SUFFIX = ".kovraphot"
RAW_SUFFIX = ".tpx3"
LAYOUTS = ("single", "quad")
DEFAULT_MAP_SIZE_PX = 256
DEFAULT_TOF_BINS = 100
# Cells of 8 pixels: a stack of 100 bins over 256 pixels is 400 kB per file.
DEFAULT_STACK_BINNING_PX = 8

# Slurm resources of one file's job. Memory is bounded whatever the file size (the tools stream), so it is fixed;
# time grows with the photon file, with a wide margin over the throughput measured on a workstation.
JOB_MEMORY_MB = 1024
JOB_MINUTES_BASE = 10
JOB_MINUTES_PER_GIB = 2
REPORT_MEMORY_MB = 1024
REPORT_MINUTES = 30


class CampaignConfigError(ValueError):
    """A campaign setting that cannot work; the message names the key and what is wrong."""


@dataclass(frozen=True)
class Campaign:
    """The checked settings: existing input folder with at least one photon or raw file, tools that can be run."""

    input_dir: str
    output_dir: str
    names: tuple[str, ...]
    brantel_args: tuple[str, ...]
    inspect_tool: str
    map_size_px: int
    tof_args: tuple[str, ...]  # kovra_inspect's options for the time-of-flight spectrum and stack
    threads_per_file: int | None = None  # kovra_brantel's threads per photon file; None: shared out (threads_for)
    raw_names: tuple[str, ...] = ()  # the names whose input is a raw file, imported first
    import_args: tuple[str, ...] = ()  # kovra_import and its options, when there are raw files

    def source(self, name: str) -> str:
        """The input file of a name: its raw file or its photon file."""
        return os.path.join(self.input_dir, name + (RAW_SUFFIX if name in self.raw_names else PHOTON_SUFFIX))


# Threads per file where the cores to share are not known (a cluster job): a node's share that keeps a job's
# wait in the queue short.
CLUSTER_THREADS_PER_FILE = 4


def threads_for(campaign: Campaign, cores: Any) -> int:
    """kovra_brantel's threads for each photon file: "threadsPerFile" when set, else the cores given to Snakemake
    (--cores) shared out over the files, at least one each; under a cluster, where the cores are not one
    machine's, CLUSTER_THREADS_PER_FILE. A file's events do not depend on it."""
    if campaign.threads_per_file is not None:
        return campaign.threads_per_file
    if not isinstance(cores, int) or cores <= 0 or cores >= 1 << 20:
        return CLUSTER_THREADS_PER_FILE
    return max(1, cores // max(1, len(campaign.names)))


def job_minutes(photon_file_bytes: int) -> int:
    """Wall time asked of Slurm for one photon file of the given size."""
    gib = photon_file_bytes / float(1 << 30)
    return JOB_MINUTES_BASE + math.ceil(gib * JOB_MINUTES_PER_GIB)


def _number(key: str, value: Any, minimum: float, strict: bool) -> float:
    # YAML 1.1 reads "1e-7" (no dot) as text, so text that is a whole number is taken as one.
    if isinstance(value, bool):
        raise CampaignConfigError(f'"{key}" must be a number, got {value!r}')
    if isinstance(value, str):
        try:
            value = float(value.strip())
        except ValueError:
            raise CampaignConfigError(f'"{key}" must be a number, got {value!r}') from None
    if not isinstance(value, (int, float)):
        raise CampaignConfigError(f'"{key}" must be a number, got {value!r}')
    number = float(value)
    if not math.isfinite(number):
        raise CampaignConfigError(f'"{key}" must be finite, got {value!r}')
    if number < minimum or (strict and number == minimum):
        relation = "greater than" if strict else "at least"
        raise CampaignConfigError(f'"{key}" must be {relation} {minimum:g}, got {value!r}')
    return number


def _format_number(number: float) -> str:
    # The shortest text that reads back as the same double, as std::stod reads it.
    return repr(int(number)) if number.is_integer() and abs(number) < 1e15 else repr(number)


def _text(key: str, value: Any) -> str:
    if not isinstance(value, str) or not value.strip():
        raise CampaignConfigError(f'"{key}" must be a non-empty path, got {value!r}')
    return value


def read_params_file(path: str) -> dict[str, Any]:
    """The "brantel" section of a parameters file, checked the way kovra_brantel would read it."""
    if not os.path.isfile(path):
        raise CampaignConfigError(f'"paramsFile": no such file: {path}')
    try:
        with open(path, encoding="utf-8") as stream:
            content = json.load(stream)
    except (OSError, UnicodeDecodeError, json.JSONDecodeError) as error:
        raise CampaignConfigError(f'"paramsFile": {path} is not a JSON file: {error}') from None
    if not isinstance(content, dict) or not isinstance(content.get("brantel"), dict):
        raise CampaignConfigError(f'"paramsFile": {path} has no "brantel" object')
    section: dict[str, Any] = content["brantel"]
    for key in ("dSpace_px", "dTime_s", "dTime_ext", "durationMax_s"):
        if key in section and (isinstance(section[key], bool) or not isinstance(section[key], (int, float))):
            raise CampaignConfigError(f'"paramsFile": {path}: "{key}" must be a number')
    if "algorithm" in section and section["algorithm"] not in ALGORITHMS:
        raise CampaignConfigError(f'"paramsFile": {path}: unknown algorithm {section["algorithm"]!r}')
    return section


def find_tool(name: str, bin_dir: str | None) -> str:
    """The absolute path of a tool, from the "bin" folder when given, else from PATH."""
    if bin_dir is None:
        found = shutil.which(name)
        if found is None:
            raise CampaignConfigError(f'{name} is not on PATH; add its folder to PATH or set "bin"')
        return os.path.abspath(found)
    candidate = os.path.join(bin_dir, name)
    if not (os.path.isfile(candidate) and os.access(candidate, os.X_OK)):
        raise CampaignConfigError(f'"bin": {bin_dir} holds no executable {name}')
    return os.path.abspath(candidate)


def list_files(input_dir: str, suffix: str) -> tuple[str, ...]:
    """The names (without extension) of the files ending in `suffix` directly in the input folder, sorted."""
    names = [
        entry[: -len(suffix)]
        for entry in os.listdir(input_dir)
        if entry.endswith(suffix) and len(entry) > len(suffix) and os.path.isfile(os.path.join(input_dir, entry))
    ]
    return tuple(sorted(names))


def list_photon_files(input_dir: str) -> tuple[str, ...]:
    """The names (without extension) of the photon files directly in the input folder, sorted."""
    return list_files(input_dir, PHOTON_SUFFIX)


def _flag(key: str, value: Any) -> bool:
    # On the command line (--config skipDamaged=true) YAML reads true and false; text is taken too.
    if isinstance(value, bool):
        return value
    if isinstance(value, str) and value.strip().lower() in ("true", "false"):
        return value.strip().lower() == "true"
    raise CampaignConfigError(f'"{key}" must be true or false, got {value!r}')


def check_campaign(config: Mapping[str, Any]) -> Campaign:
    """Checks every setting and the input folder; raises CampaignConfigError with one clear message."""
    unknown = sorted(str(key) for key in config if key not in KNOWN_KEYS)
    if unknown:
        raise CampaignConfigError(
            f"unknown key{'s' if len(unknown) > 1 else ''} {', '.join(unknown)}; known keys: {', '.join(KNOWN_KEYS)}"
        )

    def given(key: str) -> Any:
        return config.get(key)

    for key in ("input", "output"):
        if given(key) is None:
            raise CampaignConfigError(f'"{key}" is not set (give it with --config {key}=FOLDER)')
    input_dir = _text("input", given("input"))
    output_dir = _text("output", given("output"))
    if not os.path.isdir(input_dir):
        raise CampaignConfigError(f'"input": no such folder: {input_dir}')
    if os.path.exists(output_dir) and not os.path.isdir(output_dir):
        raise CampaignConfigError(f'"output": {output_dir} exists and is not a folder')

    args: list[str] = []
    from_params: dict[str, Any] = {}
    if given("paramsFile") is not None:
        params_path = _text("paramsFile", given("paramsFile"))
        from_params = read_params_file(params_path)
        # The file is read first, so the settings below override it, as on kovra_brantel's command line.
        args += ["-f", os.path.abspath(params_path)]

    options = (
        ("dSpace_px", "-s", 0.0, True),
        ("dTime_s", "-t", 0.0, True),
        ("dTime_ext", "--dTime_ext", 0.0, False),
        ("durationMax_s", "-D", 0.0, False),
    )
    for key, option, minimum, strict in options:
        if given(key) is None:
            if key in ("dSpace_px", "dTime_s") and key not in from_params:
                raise CampaignConfigError(f'"{key}" is not set (give it with --config {key}=NUMBER or in "paramsFile")')
            continue
        args += [option, _format_number(_number(key, given(key), minimum, strict))]

    algorithm = given("algorithm")
    if algorithm is not None:
        if algorithm not in ALGORITHMS:
            raise CampaignConfigError(f'"algorithm" must be one of {", ".join(ALGORITHMS)}, got {algorithm!r}')
        args += ["--algorithm", algorithm]

    map_size = given("mapSize_px")
    if map_size is None:
        map_size = DEFAULT_MAP_SIZE_PX
    map_size_number = _number("mapSize_px", map_size, 1.0, False)
    if not map_size_number.is_integer() or map_size_number > 32768:
        raise CampaignConfigError(f'"mapSize_px" must be a whole number from 1 to 32768, got {map_size!r}')

    tof_bins = _number("tofBins", DEFAULT_TOF_BINS if given("tofBins") is None else given("tofBins"), 1.0, False)
    if not tof_bins.is_integer() or tof_bins > 1e6:
        raise CampaignConfigError(f'"tofBins" must be a whole number from 1 to 1000000, got {given("tofBins")!r}')
    tof_args = ["--tof-bins", _format_number(tof_bins)]
    if given("tofMax_s") is not None:
        tof_args += ["--tof-max", _format_number(_number("tofMax_s", given("tofMax_s"), 0.0, True))]
    stack_binning = given("stackBinning_px")
    stack_binning = DEFAULT_STACK_BINNING_PX if stack_binning is None else stack_binning
    tof_args += ["--size", _format_number(map_size_number), "--binning",
                 _format_number(_number("stackBinning_px", stack_binning, 1.0 / 65536, False))]

    threads_per_file = None
    if given("threadsPerFile") is not None:
        threads = _number("threadsPerFile", given("threadsPerFile"), 1.0, False)
        if not threads.is_integer() or threads > 1024:
            raise CampaignConfigError(f'"threadsPerFile" must be a whole number from 1 to 1024, got {given("threadsPerFile")!r}')
        threads_per_file = int(threads)

    bin_dir = given("bin")
    if bin_dir is not None:
        bin_dir = _text("bin", bin_dir)
        if not os.path.isdir(bin_dir):
            raise CampaignConfigError(f'"bin": no such folder: {bin_dir}')
    brantel = find_tool("kovra_brantel", bin_dir)
    inspect = find_tool("kovra_inspect", bin_dir)

    photon_names = list_photon_files(input_dir)
    raw_names = list_files(input_dir, RAW_SUFFIX)
    both = sorted(set(photon_names) & set(raw_names))
    if both:
        raise CampaignConfigError(f'"input": {both[0]}{PHOTON_SUFFIX} and {both[0]}{RAW_SUFFIX} in {input_dir}: '
                                  f"keep one, a raw file is imported into a photon file of that name")
    names = tuple(sorted(photon_names + raw_names))
    if not names:
        raise CampaignConfigError(f'"input": no *{PHOTON_SUFFIX} or *{RAW_SUFFIX} files in {input_dir}')

    layout = given("layout")
    if layout is not None and layout not in LAYOUTS:
        raise CampaignConfigError(f'"layout" must be one of {", ".join(LAYOUTS)}, got {layout!r}')
    skip_damaged = given("skipDamaged") is not None and _flag("skipDamaged", given("skipDamaged"))
    import_args: tuple[str, ...] = ()
    if raw_names:
        import_args = (find_tool("kovra_import", bin_dir), *(["--layout", layout] if layout is not None else []),
                       *(["--skip-damaged"] if skip_damaged else []))

    return Campaign(
        input_dir=input_dir,
        output_dir=output_dir,
        names=names,
        brantel_args=(brantel, *args),
        inspect_tool=inspect,
        map_size_px=int(map_size_number),
        tof_args=tuple(tof_args),
        threads_per_file=threads_per_file,
        raw_names=raw_names,
        import_args=import_args,
    )
