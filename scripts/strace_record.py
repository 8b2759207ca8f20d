"""Reads what strace records of a program that works on a device below a root folder."""
import collections
import os
import re

# One call: its name, which one of that name it is, the files it is about, the data it reads or writes, its
# words and result. The paths are those below the root; one elsewhere is None.
Call = collections.namedtuple("Call", "name number paths data words result")
OPTIONS = ["-y", "-xx", "-s", "1000000"]  # what read_record() needs
LINE = re.compile(r"(?:\d+ +)?(\w+)\((.*)\) += (-?\d+|\?)")
# An open file's path, or a text; both are written in hexadecimal.
WORD = re.compile(r'(?:\d+|AT_FDCWD)<(?P<open>(?:\\x..)*)>|"(?P<text>(?:\\x..)*)"')


def read_record(file, root):
    """The calls in a file of strace."""
    calls, numbers = [], collections.Counter()
    for line in open(file, encoding="ascii"):
        match = LINE.match(line)
        if not match:
            continue
        name, words, result = match.groups()
        numbers[name] += 1
        base, paths, texts = "", [], []
        for word in WORD.finditer(words):
            text = bytes.fromhex((word["open"] or word["text"] or "").replace("\\x", ""))
            if word["text"] is None:
                base = os.fsdecode(text)
            elif "write" in name or "read" in name:
                texts.append(text)
            else:
                paths.append(os.path.normpath(os.path.join(base, os.fsdecode(text))))
        paths = paths or [base]
        below = [path[len(root):] or "/" if (path + "/").startswith(root + "/") else None for path in paths]
        result = None if result == "?" else int(result)  # a killed process has none
        calls.append(Call(name, numbers[name], below, b"".join(texts), words, result))
    return calls
