"""A scan from end to end: what is opened, judged and reported."""
import json
import os
import signal
import subprocess
import time
import unittest
import zipfile
from pathlib import Path

from tool_fixture import CLEAN, EICAR, INFECTED, SCAN, ToolTest


class ScanTest(ToolTest):
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

    def test_nothing_is_clean_once_memory_ran_out(self):
        for least in ("10000", "30000"):  # bytes; of some archives nothing is then unpacked, and the engine says clean
            _, summary, files = self.scan(INFECTED, **self.preloaded(TARN_TEST_LEAST=least))
            self.assertEqual({line["verdict"] for line in files.values()}, {"infected", "error"}, least)
            self.assertIn("memory ran out during the scan", {line.get("error") for line in files.values()})
            self.assertEqual(json.loads(self.run_tool("stats", "--json")[1])["records"], summary["infected"])

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

    def test_file_that_changes_during_its_scan_is_never_clean(self):
        path = self.tree / "file"
        (self.top / "eicar").write_bytes(EICAR)
        for change, verdict in (("echo >> file", "changed"), ("cp file new; mv new file", "changed"),
                                ("echo Harmless > file; touch -d@9 file", "changed"), ("cp ../eicar file", "infected")):
            options = self.preloaded(TARN_TEST_DURING=f"cd {self.tree}; {change}")
            for args in (["-v"], ["--no-cache"]):
                path.write_text("harmless\n")
                status, summary, files = self.scan(*args, path, **options)
                self.assertEqual({line["verdict"] for line in files.values() if line["changed"]}, {verdict}, change)
                self.assertEqual((status, summary["changed"]), (2, 1) if verdict == "changed" else (1, 0), change)
            self.assertIn(f"{path}: changed during the scan\n", self.run_tool("scan", path, **options)[2], change)

    def test_folders_exchanged_during_the_scan_do_not_exchange_their_verdicts(self):
        self.needs_change_times()
        for folder, content in ((self.tree / "A", EICAR.lower()), (self.tree / "B", EICAR)):
            folder.mkdir()
            (folder / "file").write_bytes(content)
        time.sleep(2.1)  # what has just changed is not remembered
        exchange = f"cd {self.tree}; mv A C && mv B A && mv C B"
        options = self.preloaded(TARN_TEST_DURING=f"mkdir {self.top}/once 2> {self.top}/rest || exit 0; {exchange}")
        self.assertEqual(sum(self.scan(self.tree, **options)[1]["not_cached"].values()), 0, "both are remembered")
        for verdicts in (["infected", "clean"], ["clean", "infected"]):
            self.assertEqual([file["verdict"] for _, file in sorted(self.scan(self.tree)[2].items())], verdicts)
            subprocess.run(["sh", "-c", exchange], check=True)

    def test_fresh_files_are_never_cached(self):
        self.needs_change_times()
        (self.tree / "clean").write_text("nothing")
        (self.tree / "eicar").write_bytes(EICAR)
        for _ in range(2):
            status, summary, files = self.scan(self.tree)
            self.assertEqual((status, summary["from_cache"], summary["not_cached"]["too_new"]), (1, 0, 2))
            self.assertEqual({line["verdict"] for line in files.values()}, {"clean", "infected"})
        self.assertEqual(self.states(self.tree / "clean"), [("unknown", None)])

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
        options = self.as_nobody() if os.geteuid() == 0 else {}
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
