#!/usr/bin/env python3
"""documents.py SOURCE SCRATCH: does what README.md and docs/*.md tell the reader to type, and looks up what they name.

On a copy of the sources and a sample device, an sh block succeeds, and a console block ("$ " before each command) prints
what it shows. Options, paths and links exist, and the README's table of options gives CMake's defaults.
"""
import os, pathlib, re, shutil, subprocess, sys

SOURCE, SCRATCH = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
COPY = SCRATCH / "source"
DIRECTORIES = {"/usr/local": "usr-local", "/tmp/camera": "camera", "/mnt/image": "device", "/etc/korvo": "device/tmp"}
NOT_RUN = re.compile(r"^(#|scripts/|tests/|\.ci/run|man )|\.\.\.|/path/to|^\s*$")
# For the system's programs; what runs until it is stopped is stopped, and an answer of "no" is an answer too.
PRELUDE = f"""
ldconfig() {{ :; }}
sudo() {{ "$@"; }}
korvoctl() {{
    case " $*" in *" --root="* | *" -R="*) ;; *) set -- "$@" --root={SCRATCH}/device ;; esac
    timeout 5 {SCRATCH}/usr-local/bin/korvoctl "$@" </dev/null || case $? in 1 | 124) ;; *) return 3 ;; esac
}}
"""
sources = ("CMakeLists.txt", "cmake/*.cmake", "include/**/*.h*", "platform/**/*.h", "src/*.h")
OURS = "".join(source.read_text() for pattern in sources for source in SOURCE.glob(pattern))
faults = []


def run(path, command, shown=None):
    for directory, stand_in in DIRECTORIES.items():
        command = command.replace(directory, f"{SCRATCH}/{stand_in}")
    environment = dict(os.environ, PKG_CONFIG_PATH=f"{SCRATCH}/usr-local/lib/pkgconfig",
                       LD_LIBRARY_PATH=f"{SCRATCH}/usr-local/lib", CMAKE_BUILD_PARALLEL_LEVEL="2")
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", PRELUDE + command], cwd=COPY, env=environment, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0 or shown not in (None, done.stdout):
        faults.append(f"{path}: exit status {done.returncode} of: {command}\n{done.stdout[-2000:]}instead of\n{shown}")


def check_commands(path, text):
    for language, block in re.findall(r"^```(\w+)\n(.*?)^```$", text.replace("\\\n", " "), re.M | re.S):
        if language == "sh":
            for command in block.splitlines():
                NOT_RUN.search(command) or run(path, command)
        elif language == "console":
            for command, shown in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.M):
                run(path, command, shown)


def check_names(path, text):
    for name in re.findall(r"(?:\b|-D)(KORVO_[A-Z_]+)", text):
        name in OURS or faults.append(f"{path}: there is no {name}")
    directories = "|".join(re.escape(entry.name) for entry in COPY.iterdir() if entry.is_dir() and entry.name != "build")
    for name in re.findall(rf"(?<![\w./-])(?:{directories})/[\w./*-]*", text):
        any(SOURCE.glob(name.rstrip("./"))) or faults.append(f"{path}: there is no {name}")
    for link in re.findall(r"\]\(([^)#:]+)\)", re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)):
        path.suffix != ".md" or (path.parent / link).exists() or faults.append(f"{path}: the link {link} leads nowhere")


def check_options(readme):
    subprocess.run(["cmake", "-S", COPY, "-B", SCRATCH / "defaults"], check=True, stdout=subprocess.DEVNULL)
    text = (SCRATCH / "defaults/CMakeCache.txt").read_text()
    cache = dict(re.findall(r"^(\w+):(?:BOOL|STRING|PATH)=(.*)$", text, re.M))
    rows = dict(re.findall(r"^\| `(\w+)` \| `([^`]*)` \|", readme, re.M))
    faults.extend(f"README.md: {name} is {cache.get(name)} by default" for name in rows if cache.get(name) != rows[name])
    faults.extend(f"README.md: {name} has no row" for name in cache if name.startswith("KORVO_") and name.isupper() and name not in rows)


shutil.copytree(SOURCE, COPY, symlinks=True, ignore=shutil.ignore_patterns("build", ".git"))
shutil.copytree(SOURCE / "examples/device", SCRATCH / "device")
for name in ("var/lib/korvo/flash/system.cfg", "tmp/defaults.cfg"):  # what a device in use has
    (SCRATCH / "device" / name).parent.mkdir(parents=True, exist_ok=True)
    shutil.copy(SCRATCH / "device/tmp/system.cfg", SCRATCH / "device" / name)
(COPY / "first.cpp").write_bytes(subprocess.check_output([SOURCE / "tests/program-in", "first", COPY / "README.md"]))

check_options((SOURCE / "README.md").read_text())
for document in [SOURCE / "README.md", *sorted(SOURCE.glob("docs/*.md"))]:
    if document.name != "porting.md":  # its commands take a maker's libraries
        check_commands(document, document.read_text())
for document in [*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md"), *SOURCE.glob("include/**/*.h"), *SOURCE.glob("platform/*/include/**/*.h")]:
    check_names(document, document.read_text())
sys.exit("\n".join(faults) or 0)
