#!/usr/bin/env python3
"""Checks that the folders of src/ include only what docs/architecture.md allows them.

The allowed arrows stand in the first code block of the section "The house", one folder a line:
"folder: the folders that it may include". Besides, only src/platform includes headers of the
operating system, and only src/broker those of the ORB's inside.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
SYSTEM = re.compile(
    r"<(unistd|signal|fcntl|pthread|dirent|netdb|poll|strings|pwd|iconv|semaphore|execinfo|dlfcn|"
    r"mntent|ifaddrs|sched|spawn|termios|syslog)\.h>|<(sys|netinet|arpa|net|linux|systemd)/")
ORB_INSIDE = re.compile(
    r"<omniORB4/(internal/.*|sslContext\.h|cdrStream\.h|omniInterceptors\.h|codeSets\.h|minorCode\.h)>")
ORB_FOLDERS = {"broker"}


def allowed_arrows():
    text = (ROOT / "docs/architecture.md").read_text()
    section = text.split("## The house", 1)[1]
    block = section.split("```", 2)[1]
    arrows = {}
    for line in block.splitlines():
        match = re.match(r"\s*(\w+)\s*:\s*(.*)$", line)
        if match:
            arrows[match.group(1)] = set(re.findall(r"\w+", match.group(2)))
    return arrows


def main():
    arrows = allowed_arrows()
    faults = []
    for path in sorted((ROOT / "src").rglob("*")):
        if path.suffix not in (".h", ".cpp") or path.parent == ROOT / "src":
            continue
        folder = path.relative_to(ROOT / "src").parts[0]
        if folder not in arrows:
            faults.append(f"{path.relative_to(ROOT)}: folder {folder} is not in the picture")
            continue
        for number, line in enumerate(path.read_text().splitlines(), 1):
            where = f"{path.relative_to(ROOT)}:{number}"
            match = re.match(r'\s*#\s*include\s+"(\w+)/', line)
            if match and match.group(1) not in arrows[folder] | {folder}:
                faults.append(f"{where}: {folder} may not include {match.group(1)}/")
            if not re.match(r"\s*#\s*include", line):
                continue
            if folder != "platform" and SYSTEM.search(line) and folder not in ORB_FOLDERS:
                faults.append(f"{where}: only platform includes the system's headers")
            if folder not in ORB_FOLDERS and ORB_INSIDE.search(line):
                faults.append(f"{where}: only broker includes the ORB's own headers")
    for fault in faults:
        print(fault, file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
