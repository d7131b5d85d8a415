"""What the tests of the program tarncache share. Each is started as TEST.py PROGRAM."""
import hashlib
import json
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TOOL = sys.argv.pop(1)
SIGNATURES = "share/tarncache/signatures"  # the program's own, never this machine's
SCAN = [TOOL, "scan", "-d", Path(TOOL).parent.parent / SIGNATURES]
INFECTED = "/usr/share/clamav-testfiles"  # 44 packings of one program that the shipped signatures know
CLEAN = "/usr/include/openssl"
EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}$" + b"EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"
NOBODY = 65534


def md5(path):
    return hashlib.md5(Path(path).read_bytes()).hexdigest()


class ToolTest(unittest.TestCase):
    """Only files that have lain unchanged for two seconds are cached, and no test waits for that: what has to be cached
    is taken from folders of installed packages, what must not be cached is made in self.tree."""

    def setUp(self):
        # Root's cases also run as another user, who may not be able to enter TMPDIR.
        folder = tempfile.TemporaryDirectory(dir="/tmp" if os.geteuid() == 0 else None)
        self.addCleanup(folder.cleanup)
        self.top = Path(folder.name)
        self.root = self.top / "root"
        self.tree = self.top / "tree"
        self.tree.mkdir()

    def as_nobody(self):
        """Gives self.top to a user whom file modes bind; the options that run the program as that user. It is run from
        a copy, because that user may not be able to enter the folder of the build."""
        for name in ("bin", "lib", "share"):
            shutil.copytree(Path(TOOL).parent.parent / name, self.top / name, True, shutil.ignore_patterns("*.a"))
        for path in (self.top, *self.top.rglob("*")):
            os.chown(path, NOBODY, NOBODY, follow_symlinks=False)
        return {"tool": self.top / "bin" / Path(TOOL).name, "user": NOBODY, "group": NOBODY, "extra_groups": [],
                "env": {**os.environ, "TMPDIR": str(self.top)}}

    def run_tool(self, command, *args, tool=TOOL, text=None, **options):
        if command == "scan" and not {"-d", "--database"}.intersection(args):
            args = ("-d", Path(tool).parent.parent / SIGNATURES, *args)
        done = subprocess.run([tool, command, "--root", self.root, *args], input=text, capture_output=True,
                              timeout=120, check=False, **options)
        return done.returncode, done.stdout, done.stderr.decode()

    def scan(self, *args, **options):
        """Status, summary, and the reported files by path (bytes)."""
        status, out, err = self.run_tool("scan", "--json", "-v", *args, **options)
        lines = [json.loads(line) for line in out.splitlines()]
        self.assertEqual([line["type"] for line in lines].count("summary"), 1, err)
        files = {bytes.fromhex(line["path_hex"]) if "path_hex" in line else line["path"].encode(): line
                 for line in lines if line["type"] == "file"}
        return status, lines[-1], files

    def states(self, *paths):
        _, out, _ = self.run_tool("lookup", "--json", *paths)
        return [(line["state"], line.get("engine")) for line in map(json.loads, out.splitlines())]

    def preloaded(self, **variables):
        if "TARN_TEST_PRELOADED" not in os.environ:
            self.skipTest("nothing can be loaded before a sanitizer")
        return {"env": {**os.environ, "LD_PRELOAD": os.environ["TARN_TEST_PRELOADED"], **variables}}

    def needs_change_times(self):
        kind = subprocess.run(["stat", "-f", "-c", "%T", self.tree], capture_output=True, check=True).stdout
        if kind in (b"tmpfs\n", b"ramfs\n"):
            self.skipTest(f"{self.tree} is in memory, of which nothing is ever remembered")

    def configure(self, text):
        """Before the first scan: another configuration than the one that comes with the program."""
        (self.root / "config").mkdir(parents=True)
        (self.root / "config/tarncfg.ini").write_text(text)

    def change_records(self, change):
        database = sqlite3.connect(self.root / "engine/cache/morcache.db")
        with database:
            database.execute("update CT set " + change)
        database.close()
