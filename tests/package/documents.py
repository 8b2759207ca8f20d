#!/usr/bin/env python3
"""documents.py SOURCE SCRATCH: holds the documents to what is so.

Runs what the sh and console blocks of README.md and docs/*.md tell the reader to type, on a copy of the
sources at SCRATCH/source: an sh block must succeed, a console block ("$ " before each command) must also
print what it shows. The system stays as it is: folders of the system stand below SCRATCH instead, and so does
the device that korvoctl works on. The other scripts, and what porting.md does with a maker's libraries, are
not run.

Then every option, file and link that the documents and public headers name must be there, and the README's
table of options must give the defaults that CMake has.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

SOURCE, SCRATCH = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
COPY = SCRATCH / "source"
# Where the commands say a folder of the system, the test has one of its own.
FOLDERS = {
    "/usr/local": "usr-local",
    "/tmp/camera": "camera",
    "/mnt/image": "device",
    "/etc/korvo": "device/tmp",
}
# Scripts have steps in CI; dots and /path/to are for the reader to fill in.
NOT_RUN = re.compile(r"^(scripts/|\.ci/run|man )|\.\.\.|/path/to")
NOT_RUN_OF = ("porting.md",)
# Stand-ins for programs that would change the system or a device.
STAND_INS = {
    "ldconfig": "exit 0",
    "sudo": 'exec "$@"',
    "korvoctl": f"""
root=--root={SCRATCH}/device
for argument; do case $argument in --root=* | -R=*) root= ;; esac; done
timeout 5 "{SCRATCH}/usr-local/bin/korvoctl" "$@" $root </dev/null
status=$?
# 1 is an answer as well, and what runs until it is stopped was stopped.
case $status in 1 | 124) exit 0 ;; *) exit $status ;; esac""",
}

faults = []


def fault(document, text):
    faults.append(f"{document}: {text}")


def documents():
    names = ["README.md", "CONTRIBUTING.md", "SECURITY.md", "CHANGELOG.md"]
    return [SOURCE / name for name in names] + sorted((SOURCE / "docs").glob("*.md"))


def blocks(text):
    """The fenced blocks of a document, as pairs of language and text."""
    return re.findall(r"^```(\w*)\n(.*?)^```$", text, re.M | re.S)


def prepare():
    shutil.rmtree(SCRATCH, ignore_errors=True)
    shutil.copytree(SOURCE, COPY, symlinks=True, ignore=lambda _, names: {"build", ".git"} & set(names))
    device = SCRATCH / "device"
    shutil.copytree(SOURCE / "examples/device", device)
    # What the documents take from a device in use: a flash copy, and the file with the factory settings.
    (device / "var/lib/korvo/flash").mkdir(parents=True)
    for name in ("var/lib/korvo/flash/system.cfg", "tmp/defaults.cfg"):
        shutil.copy(device / "tmp/system.cfg", device / name)
    (SCRATCH / "bin").mkdir()
    for name, body in STAND_INS.items():
        program = SCRATCH / "bin" / name
        program.write_text(f"#!/bin/bash\n{body}\n")
        program.chmod(0o755)


def run(document, command):
    """What the command printed; a fault where it failed."""
    for folder, stand_in in FOLDERS.items():
        command = command.replace(folder, str(SCRATCH / stand_in))
    environment = dict(
        os.environ,
        PATH=f"{SCRATCH}/bin:{os.environ['PATH']}",
        PKG_CONFIG_PATH=f"{SCRATCH}/usr-local/lib/pkgconfig",
        LD_LIBRARY_PATH=f"{SCRATCH}/usr-local/lib",
        CMAKE_BUILD_PARALLEL_LEVEL="2",
    )
    print("$", command, flush=True)
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", command], cwd=COPY, env=environment, timeout=600,
                          text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    print(done.stdout, end="", flush=True)
    if done.returncode != 0:
        fault(document, f"exit status {done.returncode} of: {command}\n{done.stdout[-2000:]}")
    return done.stdout


def check_commands(document, text):
    for language, block in blocks(text):
        block = block.replace("\\\n", " ")
        if language == "sh":
            for command in block.splitlines():
                if command.strip() and not command.startswith("#") and not NOT_RUN.search(command):
                    run(document, command)
        elif language == "console":
            for command, shown in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.M):
                printed = run(document, command)
                if printed != shown:
                    fault(document, f"{command}\nshows:\n{shown}prints:\n{printed}")


def check_names(document, text):
    sources = ("CMakeLists.txt", "cmake/**/*.cmake", "include/**/*.h*", "platform/**/*.h", "src/*.h")
    texts = "".join(path.read_text() for pattern in sources for path in SOURCE.glob(pattern))
    defined = re.findall(r"(?:option\(|set\(|#define )(KORVO_[A-Z_]+)", texts)
    for name in set(re.findall(r"(?:\b|-D)(KORVO_[A-Z_]+)", text)) - set(defined):
        if not (name.endswith("_") and name in texts):  # stands for all names that begin so
            fault(document, f"there is no {name}")
    folders = [re.escape(path.name) for path in COPY.iterdir() if path.is_dir() and path.name != "build"]
    path_of_ours = rf"(?<![\w./-])(?:{'|'.join(folders)})/[\w./*-]*"
    for name in set(re.findall(path_of_ours, text)):
        if not list(SOURCE.glob(name.rstrip("./"))):
            fault(document, f"there is no {name}")
    for target in re.findall(r"\]\(([^)#:]+)\)", re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)):
        if document.suffix == ".md" and not (document.parent / target).exists():
            fault(document, f"the link {target} leads nowhere")


def check_options(readme):
    """The rows `| `OPTION` | `default` | ...` against the cache of a build of which nothing was asked."""
    tree = SCRATCH / "defaults"
    subprocess.run(["cmake", "-S", COPY, "-B", tree], check=True, stdout=subprocess.DEVNULL)
    text = (tree / "CMakeCache.txt").read_text()
    cache = dict(re.findall(r"^(\w+):(?:BOOL|STRING|PATH)=(.*)$", text, re.M))
    rows = dict(re.findall(r"^\| `(\w+)` \| `([^`]*)` \|", readme, re.M))
    for name, default in rows.items():
        if cache.get(name) != default:
            fault("README.md", f"{name} is {cache.get(name)} by default, not {default}")
    for name in cache:
        if re.match(r"KORVO_[A-Z_]+$", name) and name not in rows:
            fault("README.md", f"the option {name} has no row")


prepare()
for path in documents():
    content = path.read_text()
    if path.name == "README.md":
        programs = [block for language, block in blocks(content) if language == "cpp"]
        (COPY / "first.cpp").write_text(programs[0])
        check_options(content)
    check_names(path, content)
    if path.name not in NOT_RUN_OF:
        check_commands(path, content)
for path in [*SOURCE.glob("include/**/*.h"), *SOURCE.glob("platform/**/include/**/*.h")]:
    check_names(path, path.read_text())
print("\n".join(faults), file=sys.stderr)
sys.exit(1 if faults else 0)
