"""What the program does with the cache, from end to end."""
import fcntl
import json
import os
import random
import sqlite3
import stat
import subprocess
import time
import unittest
from pathlib import Path

from tool_fixture import CLEAN, INFECTED, SCAN, TOOL, ToolTest, md5


class CacheTest(ToolTest):
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

    def test_changed_file_is_scanned_again(self):
        path = f"{INFECTED}/clam.exe"
        self.scan(path)
        self.change_records("FAH = FAH + 1")  # as if size or change time were others now
        self.assertEqual(self.states(path), [("changed", 48)])
        self.assertEqual(self.scan(path)[1]["scanned"], 1)
        self.assertEqual(self.states(path), [("known", 48)])
        self.change_records("FTV = FTV & ~(1 << 18) | (-1 << 48), RS = 0")  # somebody calls it clean
        self.assertEqual(self.scan(path)[0], 1)
        self.assertIn(b"Protection:          on\n", self.run_tool("stats")[1])

    def test_kills_cost_nothing_that_was_stored(self):
        length, seed = int(os.environ.get("TARN_TEST_LENGTH", "10")), random.randrange(2**32)  # in percent of 100
        moments, stored = random.Random(seed), 0
        self.scan(f"{INFECTED}/clam.exe")
        for _ in range(length):
            with subprocess.Popen([*SCAN, "--root", self.root, INFECTED, CLEAN], stdout=subprocess.DEVNULL) as tool:
                time.sleep(moments.uniform(0, 0.4))
                tool.kill()
            database = sqlite3.connect(self.root / "engine/cache/morcache.db")
            before, stored = stored, database.execute("select count(*) from CT").fetchone()[0]
            self.assertGreaterEqual(stored, before, f"seed {seed}")
            self.assertEqual(database.execute("pragma integrity_check").fetchall(), [("ok",)], f"seed {seed}")
            database.close()
        status, summary, _ = self.scan(INFECTED, CLEAN)
        self.assertEqual((status, summary["infected"], summary["from_cache"] >= stored), (1, 44, True))
        self.assertCountEqual(os.listdir(self.root / "engine/cache"), ["morcache.db", "morcache.key"])
        print(f"seed {seed}: {length} kills of a scan, {stored} records kept")

    def test_other_signatures_drop_the_records_of_this_engine_only(self):
        headers = sorted(str(path) for path in Path(CLEAN).iterdir())[:3]
        signatures = self.top / "own.hdb"
        self.configure("[cacheeng]\n")  # without protection: records are changed by hand below
        signatures.write_text(f"{'0' * 32}:1:Test.None\n")
        self.scan("--database", signatures, *headers)
        # Hand one record to another engine.
        self.change_records("FTV = (FTV & ~(0xFFFF << 32)) | (43 << 32) where FPH = (select FPH from CT limit 1)")
        self.assertCountEqual(self.states(*headers), [("known", 43), ("known", 48), ("known", 48)])
        self.assertIs(json.loads(self.run_tool("stats", "--json")[1])["protect"], False)
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

    def test_key_is_added_to_a_file_that_is_shared(self):
        self.scan(CLEAN)
        key = self.root / "config/business.ini"
        others = b"\xef\xbb\xbf; ours\r\nno entry\n[avscan]\nother = 1\n[AVSCAN]; again\n\n[x"
        key.write_bytes(others)
        key.chmod(0o400)
        self.assertEqual(self.run_tool("withdraw", "--engine-version", "1", text=md5(f"{CLEAN}/ssl.h").encode())[0], 0)
        self.assertRegex(key.read_bytes().removeprefix(others), rb"^\n\[avscan\]\nmor_secret=[0-9a-f]{28}\n$")
        self.assertEqual(stat.S_IMODE(key.stat().st_mode), 0o400)
        self.assertEqual(self.scan(CLEAN)[1]["scanned"], 1, "the cache reads the same key")

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
        options = self.as_nobody() if os.geteuid() == 0 else {}
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


if __name__ == "__main__":
    unittest.main()
