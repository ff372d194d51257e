"""Damaged files in the data folders end in one log line each, and the start goes on."""

import json
import os
import unittest

from harness import SystemTest, wait_until


class DamagedFiles(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router(start=False)

    def prepare(self):
        """A router's folder with one good envelope for agent-2, and the router stopped."""
        self.box.start()
        sender = self.peer(self.box, "agent-1").log_on()
        self.client_ok(self.box, "agent-2", "register")
        sender("messages.SendMessage", destination="agent-2", text="good")
        self.assertEqual(0, self.box.stop())
        self.file, = self.box.envelopes()
        self.good = self.file.read_text()

    def add(self, index, text):
        path = self.file.with_name(f"{index:08x}.msg")
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    def changed(self, key, value):
        return "\n".join(f"[{key}] {value}" if line.startswith(f"[{key}]") else line
                         for line in self.good.splitlines()) + "\n"

    def test_a_file_that_cannot_be_read_becomes_bad_and_the_good_one_is_delivered(self):
        self.prepare()
        rows = {
            0x100: self.changed("OriginatorCertificate", "zzzz"),
            0x101: self.changed("OriginatorCertificate", "0b000000" * 30),
            0x102: self.changed("OriginatorCertificate", "0f000000f0ffffff01000000"),
            0x103: self.changed("Timestamps", "(x)"),
            0x104: self.changed("Timestamps", "(99999999999999999999,"),
        }
        for index, text in rows.items():
            self.add(index, text)
        self.box.start()
        for index in rows:
            self.assertTrue(self.file.with_name(f"{index:08x}.msg.bad").exists(), hex(index))
        self.assertEqual(len(rows), self.box.log().count("Failed to read envelope data from"))
        self.assertEqual(len(rows), self.box.log().count("Renamed invalid envelope file"))
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("good", json.loads(line)["payload"])

    def test_a_payload_that_cannot_be_decoded_is_dropped_and_does_not_log_the_client_off(self):
        self.prepare()
        for index, data in ((0x00, "0b000000" * 2000), (0x01, "1c00000063000100"),
                            (0x02, "12000000ffffffff"), (0x03, "xyz")):
            # In front of the good one.
            self.add(index + 0x100, self.changed("Data", data).replace("[Priority] 0",
                                                                       "[Priority] 9"))
        self.box.start()
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("good", json.loads(line)["payload"])
        self.assertEqual(4, self.box.log().count("Discarding invalid envelope id="))
        self.assertNotIn("logging agent-2 off", self.box.log())
        self.wait_no_envelopes(self.box)

    def test_an_empty_file_loads_and_is_unrouteable(self):
        self.prepare()
        self.add(0x200, "")
        self.box.start()
        self.box.wait_log("Cannot route message to nowhere")
        wait_until(lambda: self.box.envelopes() == [self.file], 10, "the empty file to go")

    def test_binary_rubbish_and_endless_lines_do_not_stop_the_start(self):
        self.prepare()
        self.add(0x300, os.urandom(200000))
        self.add(0x301, b"[" * 500000)
        self.add(0x302, b"\n" * 500000)
        self.add(0x303, b"[Destination] agent-2\n" * 10000)
        (self.file.parent / "notes.txt").write_text("left alone")
        (self.file.parent / "00000400.msg").mkdir()
        self.box.start()
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("good", json.loads(line)["payload"])
        self.assertEqual("left alone", (self.file.parent / "notes.txt").read_text())

    def test_a_bad_table_line_warns_and_ends_the_reading(self):
        self.prepare()
        self.file.unlink()
        self.box.table().write_text("alpha.0..\nbeta.x..\ngamma.0..\n")
        self.box.start()
        log = self.box.log()
        warnings = [line for line in log.splitlines() if "Line 2 of the router table" in line]
        self.assertEqual(1, len(warnings), log)
        self.assertEqual(4, self.client(self.box, "alpha", "register").returncode)
        self.assertEqual(0, self.client(self.box, "gamma", "register").returncode)

    def test_table_files_of_every_kind_of_damage_let_the_router_start(self):
        self.prepare()
        self.file.unlink()
        rows = [b"", b"\n", b".", b"alpha", b"alpha.", b"alpha.0", b"alpha.0.", b"....\n",
                b"alpha.99999999999999999999..\n", b"alpha.1.IOR:zz.\n", b"alpha.1.rubbish.\n",
                b"alpha.1.IOR:0000.\n", b"alpha.1.IOR:" + b"ff" * 5000 + b".\n",
                b"alpha.0..\nalpha.0..\n", b"router.0..\n", os.urandom(100000), b"a" * 1000000,
                b"alpha.0..\0\0\0\n", b"\xff\xfe\xfd.0..\n"]
        for row in rows:
            self.box.table().write_bytes(row)
            self.box.start()
            self.assertEqual(0, self.box.stop(), row[:40])

    def test_a_duplicate_line_is_logged_as_one(self):
        self.prepare()
        self.file.unlink()
        self.box.table().write_text("alpha.0..\nalpha.0..\n")
        self.box.start()
        self.assertIn("Discarding duplicate entry for 'alpha'", self.box.log())

    def test_a_store_that_cannot_be_parsed_keeps_the_values_in_force_and_is_not_overwritten(self):
        self.box.start()
        rubbish = "[SOFTWARE\n\"IORSenderPort\"=dword:zz\n"
        (self.box.folder / "brelix.config").write_text(rubbish)
        self.assertIn("router", self.client_ok(self.box, "agent-1", "ping"))
        self.box.reload()
        self.assertIn("router", self.client_ok(self.box, "agent-1", "ping"))
        self.assertEqual(rubbish, (self.box.folder / "brelix.config").read_text())
        self.assertEqual(0, self.box.stop())


if __name__ == "__main__":
    unittest.main()
