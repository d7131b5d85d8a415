"""The program tarncache from end to end. Usage: tool_test.py PROGRAM

Only files that have lain unchanged for two seconds are cached, and no test waits for that: what has to be cached is
taken from folders of installed packages, what must not be cached is made here.
"""
import fcntl
import hashlib
import json
import os
import signal
import sqlite3
import stat
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path

TOOL = sys.argv.pop(1)
SCAN = [TOOL, "scan", "-d", Path(TOOL).parent.parent / "share/tarncache/signatures"]  # not with this machine's own
INFECTED = "/usr/share/clamav-testfiles"  # 44 packings of one program that the shipped signatures know
CLEAN = "/usr/include/openssl"
EICAR = b"X5O!P%@AP[4\\PZX54(P^)7CC)7}$" + b"EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"
NOBODY = 65534


def md5(path):
    return hashlib.md5(Path(path).read_bytes()).hexdigest()


class Tool(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.top = Path(folder.name)
        self.root = self.top / "root"
        self.tree = self.top / "tree"
        self.tree.mkdir()

    def run_tool(self, command, *args, text=None, **options):
        if command == "scan" and not {"-d", "--database"}.intersection(args):
            args = (*SCAN[2:], *args)
        done = subprocess.run([TOOL, command, "--root", self.root, *args], input=text, capture_output=True,
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

    def change_records(self, change):
        database = sqlite3.connect(self.root / "engine/cache/morcache.db")
        with database:
            database.execute("update CT set " + change)
        database.close()

    def test_second_scan_is_answered_from_the_cache_and_reads_the_same(self):
        first = self.scan(INFECTED, CLEAN)
        self.assertEqual((first[0], first[1]["infected"], first[1]["from_cache"]), (1, 44, 0))
        self.assertEqual(sum(first[1]["not_cached"].values()), 0)
        self.assertEqual(first[2][f"{INFECTED}/clam.exe".encode()]["md5"], md5(f"{INFECTED}/clam.exe"))
        second = self.scan(INFECTED, CLEAN)
        self.assertEqual(second[1]["from_cache"], len(first[2]))
        self.assertEqual((second[1]["bytes_read"], second[1]["bytes_not_read"]), (0, first[1]["bytes_read"]))
        for line in [*first[2].values(), *second[2].values()]:
            line.pop("from_cache")
        self.assertEqual((first[0], first[2]), (second[0], second[2]))
        status, out, _ = self.run_tool("scan", INFECTED)
        self.assertEqual((status, out.count(b" FOUND\n")), (1, 44))
        self.assertEqual(self.scan("--no-cache", CLEAN)[1]["from_cache"], 0)
        self.assertEqual(self.scan(CLEAN)[0], 0)

    def test_unfinished_scans_are_never_cached(self):
        paths = [f"{INFECTED}/clam.zip", f"{INFECTED}/clam.cab"]
        for path, option, value in ((paths[0], "--max-scansize", "500"), (paths[0], "--max-filesize", "300"),
                                    (paths[1], "--max-scansize", "1000")):  # cuts the member off without a word
            status, summary, files = self.scan(option, value, path)
            self.assertEqual((status, summary["not_cached"]["limit_exceeded"]), (0, 1), option)
            self.assertEqual(files[path.encode()]["verdict"], "limit exceeded", option)
        status, summary, _ = self.scan(*paths)
        self.assertEqual((status, summary["infected"], summary["from_cache"]), (1, 2, 0))
        for name, method in (("deflated", zipfile.ZIP_DEFLATED), ("bzip2", zipfile.ZIP_BZIP2)):
            with zipfile.ZipFile(self.tree / "inner", "w", method) as inner:
                inner.writestr("member", bytes(3000000))
            with zipfile.ZipFile(self.tree / name, "w") as outer:
                outer.write(self.tree / "inner")
        (self.tree / "small").write_bytes(b"small")
        for limit, verdict in (("2999999", "limit exceeded"), ("4000000", "clean")):
            _, _, files = self.scan("--max-filesize", limit, self.tree)
            verdicts = {os.path.basename(path): line["verdict"] for path, line in files.items()}
            self.assertEqual(verdicts, {b"inner": verdict, b"deflated": verdict, b"bzip2": verdict, b"small": "clean"})

    def test_nothing_is_clean_without_room_to_unpack(self):
        status, _, err = self.run_tool("scan", CLEAN, env={**os.environ, "TMPDIR": "/nonexistent"})
        self.assertEqual((status, self.root.exists()), (2, False))
        self.assertIn("TMPDIR", err)
        for option in ("size=4k", "nr_inodes=2", "nr_inodes=4"):
            script = f'mount -t tmpfs -o {option} none "$TMPDIR" || exit 77; exec "$0" "$@"'
            done = subprocess.run(["unshare", "-rm", "sh", "-c", script, *SCAN, "--no-cache", "-v", "--json",
                                   INFECTED], env={**os.environ, "TMPDIR": str(self.tree)}, capture_output=True,
                                  timeout=120, check=False)
            if b"unshare: " in done.stderr or done.returncode == 77:
                self.skipTest("cannot mount a small file system here")
            lines = [json.loads(line) for line in done.stdout.splitlines()]
            self.assertNotEqual(done.returncode, 0, option)  # with two inodes there may be no folder at all
            self.assertLessEqual({line["verdict"] for line in lines[:-1]}, {"infected", "error"}, option)

    def test_abandoned_temporary_folders_go(self):
        environment = {**os.environ, "TMPDIR": str(self.tree)}
        os.mkfifo(self.top / "list")
        (self.top / "kept").mkdir()
        (self.tree / "tarncache-unpacked.linked").symlink_to(self.top / "kept")
        with subprocess.Popen([*SCAN, "--no-cache", "-q", "-f", self.top / "list"], env=environment) as tool:
            with open(self.top / "list", "w"):  # opens when the scan has begun, and the list has no end
                self.assertEqual(self.run_tool("scan", CLEAN, env=environment)[0], 0)
                self.assertEqual(len(os.listdir(self.tree)), 2, "the folder of a running scan stays")
                tool.kill()
        (next(path for path in self.tree.iterdir() if path.is_dir() and not path.is_symlink()) / "rest").touch()
        self.assertEqual(self.run_tool("scan", CLEAN, env=environment)[0], 0)
        self.assertEqual(os.listdir(self.tree), ["tarncache-unpacked.linked"])

    def test_changed_file_is_scanned_again(self):
        path = f"{INFECTED}/clam.exe"
        self.scan(path)
        self.change_records("FAH = FAH + 1")  # as if size or change time were others now
        self.assertEqual(self.states(path), [("changed", 48)])
        self.assertEqual(self.scan(path)[1]["scanned"], 1)
        self.assertEqual(self.states(path), [("known", 48)])

    def test_fresh_files_are_never_cached(self):
        (self.tree / "clean").write_text("nothing")
        (self.tree / "eicar").write_bytes(EICAR)
        for _ in range(2):
            status, summary, files = self.scan(self.tree)
            self.assertEqual((status, summary["from_cache"], summary["not_cached"]["too_new"]), (1, 0, 2))
            self.assertEqual({line["verdict"] for line in files.values()}, {"clean", "infected"})
        self.assertEqual(self.states(self.tree / "clean"), [("unknown", None)])

    def test_other_signatures_drop_the_records_of_this_engine_only(self):
        headers = sorted(str(path) for path in Path(CLEAN).iterdir())[:3]
        signatures = self.top / "own.hdb"
        signatures.write_text(f"{'0' * 32}:1:Test.None\n")
        self.scan("--database", signatures, *headers)
        # Hand one record to another engine.
        self.change_records("FTV = (FTV & ~(0xFFFF << 32)) | (43 << 32) where FPH = (select FPH from CT limit 1)")
        self.assertCountEqual(self.states(*headers), [("known", 43), ("known", 48), ("known", 48)])
        self.assertEqual(self.scan("--database", signatures, self.tree)[0], 0)
        self.assertEqual([engine for _, engine in self.states(*headers)].count(48), 2, "same signatures")
        signatures.write_text(f"{md5(headers[0])}:{os.path.getsize(headers[0])}:Test.Found\n")
        self.assertEqual(self.scan("--database", signatures, self.tree)[0], 0)
        self.assertCountEqual(self.states(*headers), [("known", 43), ("unknown", None), ("unknown", None)])
        self.assertFalse((self.root / "engine/clean_engine_flag").exists())
        status, summary, files = self.scan("--database", signatures, *headers)
        self.assertEqual((status, summary["from_cache"]), (1, 0), "a record of another engine is no answer")
        self.assertIn("Test.Found", files[headers[0].encode()]["name"])
        for bit in (8, 12, 19, 31):  # as if the records of an older set had outlived their deletion
            self.change_records(f"FTV = (FTV | {1 << bit}) - (FTV & {1 << bit})")
            self.assertEqual(self.states(headers[0]), [("known", 48)], "people may still ask")
            self.assertEqual(self.scan("--database", signatures, *headers)[1]["from_cache"], 0, bit)

    def test_interrupted_scan_keeps_what_it_has(self):
        fifo = self.top / "list"
        os.mkfifo(fifo)
        paths = sorted(str(path) for path in Path(INFECTED).iterdir())
        with subprocess.Popen([*SCAN, "--root", self.root, "-v", "-f", fifo], stdout=subprocess.PIPE) as tool:
            with open(fifo, "w") as file:  # stays open: the list has no end
                file.write("\n".join(paths) + "\n")
                file.flush()
                found = [tool.stdout.readline() for _ in paths]
                self.assertEqual(self.run_tool("stats")[0], 0, "asking works beside a scan")
                tool.send_signal(signal.SIGINT)
                rest = tool.stdout.read()
                status = tool.wait(timeout=60)
        self.assertEqual((status, len(set(found))), (130, 44))
        self.assertIn(b"Interrupted", rest)
        self.assertEqual(set(self.states(*paths)), {("known", 48)})

    def test_names_of_all_kinds(self):
        names = [b"new\nline", b"bad\xff", b"esc\x1b[31m", b";semi", "ümlaut".encode(), b"-dash",
                 b"new\\nline", "rtl\u202egpj".encode()]
        paths = [os.fsencode(self.tree) + b"/" + name for name in names]
        for path in paths:
            Path(os.fsdecode(path)).write_bytes(EICAR)
        self.assertCountEqual(self.scan(self.tree)[2], paths)
        listed = self.scan("-0", "--file-list", "-", text=b"\0".join(paths))
        self.assertCountEqual(listed[2], paths)
        _, out, _ = self.run_tool("scan", "-q", self.tree)
        lines = out.decode().splitlines()
        self.assertEqual(len(lines), len(names), "one line for each file")
        for part in ("/new\\nline: ", "/new\\\\nline: ", "/rtl\\xe2\\x80\\xaegpj: ", "/bad\\xff: ",
                     "/esc\\x1b[31m: ", "/ümlaut: "):
            self.assertEqual(sum(part in line for line in lines), 1, part)

    def test_only_ordinary_files_are_opened(self):
        (self.tree / "sub").mkdir()
        (self.tree / "sub/eicar").write_bytes(EICAR)
        os.symlink("sub/eicar", self.tree / "link")
        os.symlink(self.tree, self.tree / "sub/loop")
        os.mkfifo(self.tree / "pipe")
        self.scan(CLEAN)
        os.link(self.root / "engine/cache/morcache.db", self.tree / "alias")
        status, summary, files = self.scan(self.tree, self.root / "engine", "/proc/self")
        self.assertEqual(status, 1)
        self.assertEqual(summary["skipped"], {"links": 2, "not_a_file": 1, "excluded": 0, "kernel_files": 1,
                                              "own_files": 2})
        engine = [f"{self.root}/engine/{name}".encode() for name in ("scan.lock", "signatures.id", "update.lock")]
        self.assertCountEqual(files, [f"{self.tree}/sub/eicar".encode(), *engine])
        for exclude in ("sub", "*/sub/eic*", "e[i]car", f"{self.tree}/sub/", os.path.relpath(self.tree) + "/s?b"):
            self.assertEqual(self.scan("--exclude", exclude, self.tree)[0], 0, exclude)
        _, _, files = self.scan(self.tree / "link")
        self.assertEqual(list(files), [f"{self.tree}/sub/eicar".encode()], "an argument that is a link is its target")
        _, _, files = self.scan(f"{self.tree}/sub/loop/../tree/./sub//eicar")
        self.assertEqual(list(files), [f"{self.tree}/sub/eicar".encode()])

    def test_errors_show_in_the_status_unless_something_is_found(self):
        (self.tree / "secret").write_bytes(EICAR)
        (self.tree / "secret").chmod(0)
        (self.tree / "eicar").write_bytes(EICAR)
        options = {}
        if os.geteuid() == 0:
            options = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
            for path in (self.top, self.tree, self.tree / "secret", self.tree / "eicar"):
                os.chown(path, NOBODY, NOBODY)
        status, summary, files = self.scan(self.tree / "secret", **options)
        self.assertEqual((status, summary["errors"]), (2, 1))
        self.assertEqual(files[f"{self.tree}/secret".encode()]["verdict"], "error")
        self.assertEqual(self.scan(self.tree, **options)[0], 1, "infected files win")
        for args in ([self.tree / "missing"], ["--database", self.tree, CLEAN],
                     ["--database", "/etc/passwd", CLEAN], [], ["--threads", "0", CLEAN]):
            self.assertEqual(self.run_tool("scan", *args)[0], 2, args)

    def test_paths_that_are_too_long_are_scanned_but_not_cached(self):
        here = os.getcwd()
        self.addCleanup(os.chdir, here)
        os.chdir(self.tree)
        for _ in range(18):
            os.mkdir("d" * 250)
            os.chdir("d" * 250)
        Path("eicar").write_bytes(EICAR)
        os.chdir(here)
        status, summary, _ = self.scan(self.tree)
        self.assertEqual((status, summary["not_cached"]["path_too_long"]), (1, 1))

    def test_withdrawn_files_and_only_they_are_scanned_again(self):
        self.scan(CLEAN)
        paths = sorted(str(path) for path in Path(CLEAN).iterdir())[:12]
        marker, listed = self.root / "engine/clean_engine_hash_flag", self.root / "engine/kelmorehash/update_cache.dat"
        bad = f"{md5(paths[0])}\n# all\n\nnot an MD5\n"
        status, _, err = self.run_tool("withdraw", "--engine-version", "1", text=bad.encode())
        self.assertEqual((status, marker.exists(), listed.exists()), (2, False, False))
        self.assertIn("line 4", err)
        self.assertEqual(self.run_tool("withdraw", "--engine-version", "x" * 100, text=b"")[0], 2)
        # Two lists without a scan in between: neither is lost.
        (self.top / "one").write_text(f"  {md5(paths[0]).upper()}\t\r\n")
        more = "\n".join(md5(path) for path in paths[1:])
        self.assertEqual(self.run_tool("withdraw", "--engine-version", "1", self.top / "one")[0], 0)
        self.assertEqual(self.run_tool("withdraw", "--engine-version", "2", text=more.encode())[0], 0)
        self.assertNotIn(md5(paths[1]).encode(), listed.read_bytes())
        _, summary, files = self.scan(CLEAN)
        again = [path.decode() for path, line in files.items() if not line["from_cache"]]
        digests = {md5(path) for path in paths}
        self.assertEqual(sorted(again), sorted(str(p) for p in Path(CLEAN).iterdir() if md5(p) in digests))
        self.assertFalse(marker.exists() or listed.exists())

    def test_list_that_does_not_open_keeps_the_cache_off_at_once_and_is_kept(self):
        self.scan(CLEAN)
        self.run_tool("withdraw", "--engine-version", "1", text=md5(f"{CLEAN}/ssl.h").encode())
        key = self.root / "config/business.ini"
        right = key.read_text()
        for wrong in ("", f"[avscan]\nmor_secret={'5a' * 14}\n"):
            key.write_text(wrong)
            summary = self.scan(CLEAN)[1]
            self.assertTrue(not summary["cache_used"] and summary["seconds"] < 20, wrong)
            self.assertIn("business.ini", summary["cache_off"])
        key.write_text(right)
        self.assertEqual(self.scan(CLEAN)[1]["scanned"], 1)

    def test_scans_and_updaters_wait_or_keep_out_of_the_way(self):
        self.scan(CLEAN)
        with open(self.root / "engine/scan.lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assertIn("another scan", self.scan(CLEAN)[1]["cache_off"])
        arguments = [TOOL, "withdraw", "--root", self.root, "--engine-version", "1", self.top / "list"]
        (self.top / "list").write_text("0" * 32)
        with open(self.root / "engine/update.lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as tool:
                self.assertIn(b"waiting", tool.stderr.readline())
                self.assertFalse((self.root / "engine/clean_engine_hash_flag").exists())
                fcntl.flock(lock, fcntl.LOCK_UN)
        self.assertEqual((tool.returncode, self.scan(CLEAN)[1]["from_cache"] > 0), (0, True))

    def test_verdicts_that_cannot_be_stored_are_told(self):
        """A writer elsewhere makes insertions fail, a reader the commit of a whole batch."""
        fifo = self.top / "list"
        os.mkfifo(fifo)
        for statement in ("begin immediate", "begin; select * from CT"):
            arguments = [*SCAN, "--json", "--root", self.root, "-f", fifo]
            with subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
                with open(fifo, "w") as file:  # from here on the cache has started
                    database = sqlite3.connect(self.root / "engine/cache/morcache.db", isolation_level=None)
                    for part in statement.split("; "):
                        database.execute(part).fetchone()
                    file.write(f"{CLEAN}/ssl.h\n{CLEAN}/bio.h\n")
                out, err = tool.communicate(timeout=60)
            database.close()
            self.assertEqual(json.loads(out.splitlines()[-1])["not_cached"]["not_stored"], 2, statement)
            self.assertIn(b"could not be stored", err)

    def test_find_and_forget(self):
        path = f"{INFECTED}/clam.exe"
        self.scan(path)
        unknown = "f" * 32
        status, out, _ = self.run_tool("find", "--json", unknown, "-", text=md5(path).upper().encode())
        found = {line["md5"]: (line["state"], line["files"]) for line in map(json.loads, out.splitlines())}
        file = {"path": path, "changed": False}
        self.assertEqual((status, found), (1, {unknown: ("unknown", []), md5(path): ("found", [file])}))
        self.assertEqual(self.run_tool("find", "-0", md5(path))[:2], (0, path.encode() + b"\0"))
        self.change_records("FAH = FAH + 1")
        status, out, err = self.run_tool("find", "-0", md5(path))
        self.assertEqual((status, out), (1, b""), "what has changed may carry anything")
        self.assertIn("clam.exe has changed since", err)
        self.change_records("FAH = FAH - 1")
        self.assertEqual(self.run_tool("forget", md5(path), "no MD5")[0], 2)
        self.assertEqual(self.states(path), [("known", 48)], "nothing is deleted when an argument is wrong")
        self.assertEqual(self.run_tool("forget", unknown, md5(path))[:2], (0, b"Records deleted: 1\n"))
        self.assertEqual(json.loads(self.run_tool("stats", "--json")[1])["records"], 0)

    def test_asking_needs_no_room_and_leaves_what_it_cannot_read(self):
        path = f"{CLEAN}/ssl.h"
        self.assertEqual(self.run_tool("withdraw", "--engine-version", "1", text=b"0" * 32)[0], 0)
        status, _, err = self.run_tool("stats")
        self.assertEqual((status, os.listdir(self.root / "engine/cache")), (2, []), "asking makes no database")
        self.assertIn("no cache", err)
        self.scan(path)
        (self.root / "config/tarncfg.ini").write_text("[cacheeng]\ndiskthreshold=2000000000\n")
        for command in (["stats"], ["lookup", path], ["find", md5(path)]):
            self.assertEqual(self.run_tool(*command)[0], 0, command)
        self.assertIn("does not start", self.run_tool("forget", md5(path))[2])
        database = self.root / "engine/cache/morcache.db"
        before = database.read_bytes()
        options = {}
        if os.geteuid() == 0:
            options = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
            for file in (self.top, *self.top.rglob("*")):
                os.chown(file, NOBODY, NOBODY)
        database.chmod(0)
        for command in (["stats"], ["lookup", path], ["find", md5(path)]):
            status, _, err = self.run_tool(*command, **options)
            self.assertEqual(status, 2, command)
            self.assertIn("cannot be read", err)
        database.chmod(0o600)
        self.assertEqual(database.read_bytes(), before)

    def test_installation_folder(self):
        self.assertEqual(self.run_tool("stats")[0], 2, "asking sets nothing up")
        self.assertFalse(self.root.exists())
        environment = {**os.environ, "TARN_INSTALL_DIR": str(self.root / "lib")}
        done = subprocess.run([*SCAN, "-q", CLEAN], env=environment, timeout=120, check=False)
        self.assertEqual(done.returncode, 0)
        modes = {name: stat.S_IMODE((self.root / name).stat().st_mode)
                 for name in ("engine", "engine/cache", "engine/kelmorehash", "config/business.ini")}
        self.assertEqual(modes, {"engine": 0o755, "engine/cache": 0o700, "engine/kelmorehash": 0o700,
                                 "config/business.ini": 0o600})
        config, key = self.root / "config/tarncfg.ini", self.root / "config/business.ini"
        config.write_text("[cacheeng]\ndiskthreshold=2000000000\n[mine]\nkept=1\n")
        before = key.read_bytes()
        status, summary, _ = self.scan(CLEAN)
        self.assertEqual((status, summary["cache_used"], summary["from_cache"]), (0, False, 0), "no room for a cache")
        self.assertIn("does not start", summary["cache_off"])
        self.assertIn("kept=1", config.read_text())
        self.assertEqual(key.read_bytes(), before)
        (self.root / "engine").chmod(0o777)
        self.assertIn("other users", self.scan(CLEAN)[1]["cache_off"])

    def test_reader_of_the_report_that_goes_away_ends_the_scan(self):
        fifo = self.top / "list"
        os.mkfifo(fifo)
        with subprocess.Popen([*SCAN, "--root", self.root, "-v", "-f", fifo], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as tool:
            tool.stdout.close()
            with open(fifo, "w") as file:  # stays open: the list has no end
                file.write(CLEAN + "\n")
                file.flush()
                err = tool.stderr.read().decode()
        self.assertEqual(tool.returncode, 2)
        self.assertIn("cannot be written", err)


if __name__ == "__main__":
    unittest.main()
