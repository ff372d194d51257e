"""The IOR port and what it hands out."""

import socket
import unittest

import giop
import harness
from harness import SystemTest, run, wait_until


class IorPort(SystemTest):
    def test_the_text_is_the_reference_and_nothing_else(self):
        box = self.router()
        text = giop.fetch_ior(box.ior_port)
        self.assertRegex(text, "^IOR:([0-9a-f]{2})+$")
        self.assertIn(f"This router's IOR:\n{text}\n", box.log())

    def test_catior_shows_iiop_1_2_and_the_tls_component(self):
        box = self.router()
        done = run("catior", giop.fetch_ior(box.ior_port))
        self.assertEqual(0, done.returncode)
        text = done.stdout.decode()
        self.assertIn("IDL:BrelixMessaging/MessageRouter:1.0", text)
        self.assertIn("IIOP 1.2", text)
        self.assertIn("TAG_SSL_SEC_TRANS", text)
        self.assertIn(str(box.tls_port), text)

    def test_a_reload_leaves_the_way_to_the_router_as_it_is(self):
        box = self.router()
        before = run("catior", giop.fetch_ior(box.ior_port)).stdout
        box.reload()
        box.reload()
        self.assertEqual(before, run("catior", giop.fetch_ior(box.ior_port)).stdout)

    def test_the_object_key_is_that_of_the_persistent_root_object_and_stays(self):
        box = self.router()
        first = giop.Ior(giop.fetch_ior(box.ior_port))
        self.assertIn(b"RouterPersistent", first.key)
        self.assertTrue(first.key.endswith(b"MessageRouter"), first.key)
        self.assertEqual((1, 2), first.version)
        box.reload()
        reloaded = giop.Ior(giop.fetch_ior(box.ior_port))
        self.assertEqual(0, box.stop())
        box.start()
        restarted = giop.Ior(giop.fetch_ior(box.ior_port))
        box.kill()
        box.start()
        killed = giop.Ior(giop.fetch_ior(box.ior_port))
        for again in (reloaded, restarted, killed):
            self.assertEqual((first.key, first.host, first.tls_port),
                             (again.key, again.host, again.tls_port))

    def test_the_host_is_an_address_that_others_can_use(self):
        box = self.router()
        self.assertFalse(giop.Ior(giop.fetch_ior(box.ior_port)).host.startswith("127."))
        self.assertIn("Successfully validated this router's IOR", box.log())

    def test_two_connections_at_once_both_get_the_whole_text(self):
        box = self.router()
        connections = [socket.create_connection(("127.0.0.1", box.ior_port), 20)
                       for _ in range(2)]
        texts = []
        for connection in connections:
            with connection:
                text = b""
                while chunk := connection.recv(65536):
                    text += chunk
            texts.append(text.decode())
        self.assertTrue(texts[0])
        self.assertEqual(texts[0], texts[1])

    def test_many_who_connect_and_do_not_read_hold_up_nobody(self):
        box = self.router()
        silent = [socket.create_connection(("127.0.0.1", box.ior_port), 20) for _ in range(300)]
        try:
            self.assertTrue(giop.fetch_ior(box.ior_port))
        finally:
            for connection in silent:
                connection.close()

    def test_one_who_talks_is_cut_off_and_the_next_is_served(self):
        box = self.router()
        with socket.create_connection(("127.0.0.1", box.ior_port), 20) as loud:
            try:
                loud.sendall(b"GET / HTTP/1.0\r\n\r\n" * 1000)
                while loud.recv(65536):
                    pass
            except ConnectionError:
                pass
        self.assertTrue(giop.fetch_ior(box.ior_port))

    def test_a_taken_port_is_logged_and_the_router_goes_on(self):
        with socket.create_server(("", 0)) as taken:
            box = self.router(start=False,
                              settings={"IORSenderPort": taken.getsockname()[1]})
            box.start()
            box.wait_log("IOR_Sender::Process: Failed to create acceptor")
            self.assertTrue(box.running())

    def test_the_port_follows_the_configuration_at_a_reinitialisation(self):
        box = self.router()
        other = harness.free_port()
        box.write_settings(IORSenderPort=other)
        box.reload()
        self.assertTrue(wait_until(lambda: self.fetch(other), 10, "the new port"))
        self.assertIsNone(self.fetch(box.ior_port))

    @staticmethod
    def fetch(port):
        try:
            return giop.fetch_ior(port)
        except OSError:
            return None


if __name__ == "__main__":
    unittest.main()
