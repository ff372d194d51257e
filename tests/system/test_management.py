"""What a router answers itself: questions of clients, news of other routers, and rubbish."""

import fcntl
import json
import unittest

from harness import SystemTest, run, wait_until

MANAGER = ("agent-1", "management")


class Management(SystemTest):
    def setUp(self):
        super().setUp()
        self.box = self.router()
        self.client_ok(self.box, "agent-1", "register")

    def manager(self, *arguments):
        """brelix-client as agent-1 with the management role."""
        command = self.client_command(self.box, "agent-1", *arguments)
        command[command.index("--identity") + 1] = self.ca.issue(*MANAGER)
        return command

    def manager_ok(self, *arguments):
        done = run(*self.manager(*arguments))
        self.assertEqual(0, done.returncode, done.stderr.decode())
        return done.stdout.decode()

    # Questions

    def test_status_tells_of_a_client_in_json_and_in_text(self):
        self.peer(self.box, "agent-2").log_on()
        answer = json.loads(self.client_ok(self.box, "agent-1", "--json", "status", "agent-2"))
        self.assertEqual({"name": "agent-2", "isRouter": False, "isParent": False,
                          "isLoggedOn": True, "isPassiveConsumer": True}, answer["payload"])
        self.assertEqual("EM-GetClientStatus-Reply", answer["type"])
        self.assertEqual("router", answer["originator"])
        text = self.client_ok(self.box, "agent-1", "status", "agent-2")
        self.assertIn('type: "EM-GetClientStatus-Reply"', text)
        self.assertIn('"isLoggedOn":true', text)
        self.box.wait_log("EM-GetClientStatus agent-2 originator router.agent-1")

    def test_status_of_a_stranger_is_an_empty_answer_and_of_no_name_a_refusal(self):
        answer = json.loads(self.client_ok(self.box, "agent-1", "--json", "status", "nobody"))
        self.assertEqual("empty", answer["payload_type"])
        self.assertIn("does not know nobody",
                      self.client(self.box, "agent-1", "status", "nobody").stderr.decode())
        self.assertEqual(b"", self.client(self.box, "agent-1", "status", "agent-1").stderr)
        done = self.client(self.box, "agent-1", "status", "")
        self.assertEqual(4, done.returncode)
        self.assertIn("MS-BadMessageFormat", done.stderr.decode())

    def test_a_question_takes_nothing_else_that_waits(self):
        self.client_ok(self.box, "agent-2", "register")
        self.client_ok(self.box, "agent-2", "send", "agent-1", "--text", "kept")
        self.client_ok(self.box, "agent-1", "status", "agent-2")
        line = self.client_ok(self.box, "agent-1", "--json", "receive")
        self.assertEqual("kept", json.loads(line)["payload"])
        self.wait_no_envelopes(self.box)

    def test_heartbeat_is_answered_to_who_has_the_role_alone(self):
        answer = json.loads(self.manager_ok("--json", "heartbeat"))
        self.assertEqual("EM-Heartbeat-Reply", answer["type"])
        done = self.client(self.box, "agent-1", "--timeout", "1", "heartbeat")
        self.assertEqual(3, done.returncode)
        self.assertIn("management role", done.stderr.decode())
        self.box.wait_log(
            "Management message (EM-Heartbeat) UNAUTHORISED originator router.agent-1")

    def test_an_unregistered_client_cannot_ask(self):
        done = self.client(self.box, "agent-2", "status", "agent-1")
        self.assertEqual(4, done.returncode)
        self.assertIn("NotRegistered", done.stderr.decode())

    # Subscriptions

    def subscriber(self):
        """agent-1's notices of others, as (type, name)."""
        process = self.start_client(self.box, "agent-1", "--json", "listen")
        self.box.wait_log("Logged on agent-1 as a client")

        def notice():
            while True:
                envelope = json.loads(self.wait_line(process.stdout))
                if envelope["payload"] != "agent-1":
                    return envelope["type"], envelope["payload"]
        return notice

    def test_a_subscriber_hears_of_clients_also_after_a_restart(self):
        answer = json.loads(self.client_ok(self.box, "agent-1", "--json", "subscribe", "clients"))
        self.assertEqual(("EM-NotifyClientUpdates-Reply", "empty", "router"),
                         (answer["type"], answer["payload_type"], answer["originator"]))
        self.assertEqual(0, self.box.stop())
        self.box.start()
        notice = self.subscriber()
        self.client_ok(self.box, "agent-2", "register")
        self.assertEqual(("EM-ClientRegistered", "agent-2"), notice())
        self.client_ok(self.box, "agent-2", "unregister")
        self.assertEqual(("EM-ClientUnregistered", "agent-2"), notice())

    def test_a_subscriber_hears_of_routers(self):
        answer = json.loads(self.manager_ok("--json", "subscribe", "routers"))
        self.assertEqual(("EM-NotifyRouterUpdates-Reply", "empty", "router"),
                         (answer["type"], answer["payload_type"], answer["originator"]))
        notice = self.subscriber()
        child = self.peer(self.box, "child", "router").connect()
        child("root.GetRouter")
        for operation, event in (("Register", "Registered"), ("Logon", "Logon"),
                                 ("Logoff", "Logoff"), ("Unregister", "Unregistered")):
            child("router." + operation)
            self.assertEqual(("EM-Router" + event, "child"), notice())

    def test_only_who_has_the_role_subscribes_to_routers(self):
        done = self.client(self.box, "agent-1", "--timeout", "1", "subscribe", "routers")
        self.assertEqual(3, done.returncode)
        self.assertNotIn("NotifyRouterUpdate", (self.box.folder / "brelix.config").read_text())

    # Rubbish

    def test_odd_names_and_payloads_are_answered_or_logged_and_the_router_goes_on(self):
        sender = self.peer(self.box, "agent-2", "router", "management").log_on()
        names = ["", ".", "a.b", "a,b", "a\nb", "\u00e4\u20ac", "x" * 100000, "[x]", ":", "router"]
        types = ["EM-GetClientStatus", "EM-NotifyClientUpdates", "EM-Heartbeat",
                 "EM-NotifyRouterUpdates", "EM-Nothing", "EM-GetClientStatus-Reply", "em", "Foo",
                 "", "a\nb", "Certification.Foo"]
        for kind in types:
            for name in names:
                sender("messages.SendMessage", destination=":", type=kind, text=name)
            sender("messages.SendMessage", destination=":", type=kind, strings=["a", ""])
            sender("messages.SendMessage", destination=":", type=kind, number=7)
        count = len(types) * (len(names) + 2)
        sender.wait_received(count)
        self.assertTrue(self.box.running())
        self.wait_no_envelopes(self.box)

    def test_who_asks_as_fast_as_it_can_holds_up_nobody_elses_messages(self):
        flooder = self.peer(self.box, "agent-2").log_on()
        receiver = self.peer(self.box, "agent-1").log_on(register=False)
        child = self.peer(self.box, "child", "router").connect()
        for step in ("root.GetRouter", "router.Register", "router.Logon"):
            child(step)
        flooder("bulk", destination="router", type="Foo", count=1000000, threads=4)
        flooder.wait_received(200)
        child("bulk", destination="agent-1", route=["router", "agent-1"], count=200, rate=40,
              as_router=True)
        # The answers alone would take a minute if the questions left them one id in ten.
        receiver.wait_received(200, 15)
        flooder("bulk_stop")
        accepted = flooder("bulk_wait")["accepted"]
        flooder.wait_received(accepted)

    def test_a_stored_question_that_cannot_be_decoded_does_not_end_the_router_twice(self):
        self.client_ok(self.box, "agent-1", "status", "agent-1")
        self.client_ok(self.box, "agent-2", "register")
        self.client_ok(self.box, "agent-1", "send", "agent-2", "--text", "good")
        self.assertEqual(0, self.box.stop())
        good, = self.box.envelopes()
        bad = good.with_name("00000077.msg")
        lines = {"PhysicalDestination": "router", "Type": "EM-GetClientStatus",
                 "Data": "12000000ffffffff"}
        bad.write_text("\n".join(
            f"[{key}] {lines[key]}" if (key := line[1:line.index("]")]) in lines else line
            for line in good.read_text().splitlines()) + "\n")
        self.box.start()
        self.assertTrue(bad.with_name("00000077.msg.bad").exists())
        line = self.client_ok(self.box, "agent-2", "--json", "receive")
        self.assertEqual("good", json.loads(line)["payload"])

    def test_a_waiting_question_whose_file_is_damaged_ends_the_router_once(self):
        sender = self.peer(self.box, "agent-2").log_on()
        # Everything waits behind a subscription that cannot be written yet.
        with open(self.box.folder / "brelix.config.lock", "ab") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            sender("messages.SendMessage", destination=":", type="EM-NotifyClientUpdates", text="")
            sender("messages.SendMessage", destination=":", type="EM-GetClientStatus", text="x")
            waiting, = (path for path in self.box.envelopes()
                        if "EM-GetClientStatus" in path.read_text())
            waiting.write_text("\n".join(
                "[Data] 12000000ffffffff" if line.startswith("[Data]") else line
                for line in waiting.read_text().splitlines()) + "\n")
        self.assertEqual(255, self.box.wait_end(20))
        self.assertTrue(waiting.exists())
        self.box.start()
        self.assertFalse(waiting.exists())
        self.assertTrue(waiting.with_name(waiting.name + ".bad").exists())
        self.client_ok(self.box, "agent-1", "register")
        self.client_ok(self.box, "agent-1", "status", "agent-1")


class LogicalRouting(SystemTest):
    """A router with the map, between a child that the test plays and its own clients."""

    def setUp(self):
        super().setUp()
        self.box = self.router(settings={"LogicalRouting": 1})
        self.child = self.log_on_child("child-1")

    def log_on_child(self, name):
        child = self.peer(self.box, name, "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon")
        return child

    def news(self, child, name, event, **payload):
        certificate = (self.ca.issue(name, "router") / "certificate.pem").read_text()
        mark = len(self.box.log())
        child("router_consumer.SendEnvelope", originator=name, certificate=certificate,
              route=[":"], stamps=[[name, 1]],
              message=dict(destination=":.:", type="MS-Router" + event, **payload))
        self.box.wait_log(f"MS-Router{event}", since=mark)

    def send(self, leaf):
        self.client_ok(self.box, "agent-1", "send", leaf + ".agent-9", "--text", "down")

    def test_a_message_finds_its_way_down_and_the_map_survives_kill_9(self):
        self.client_ok(self.box, "agent-1", "register")
        self.news(self.child, "child-1", "Registered", text="leaf")
        self.send("leaf")
        self.child.wait_received(1)
        self.assertEqual("leaf.agent-9", self.child.received()[0]["destination"])
        self.box.reload()  # puts the table on disk
        self.box.kill()
        self.box.start()
        self.child("reconnect")
        self.send("leaf")
        self.child.wait_received(2)

    def test_without_the_setting_a_reload_leaves_the_map_unused_and_with_it_in_use_again(self):
        self.client_ok(self.box, "agent-1", "register")
        self.news(self.child, "child-1", "Registered", text="leaf")
        self.box.write_settings(LogicalRouting=0)
        self.box.reload()
        self.send("leaf")
        self.box.wait_log("Cannot route message to leaf")
        self.child("reconnect")
        self.news(self.child, "child-1", "Unregistered", text="leaf")
        self.box.wait_log("MS-RouterUnregistered - router has no logical routing table "
                          "originator child-1")
        self.box.write_settings(LogicalRouting=1)
        self.box.reload()
        self.child("reconnect")
        self.send("leaf")
        self.child.wait_received(1)

    def test_names_move_and_go_with_the_news(self):
        other = self.log_on_child("child-2")
        self.client_ok(self.box, "agent-1", "register")
        self.news(self.child, "child-1", "Registered", strings=["leaf-1", "leaf-2"])
        self.news(other, "child-2", "Registered", text="leaf-1")
        self.news(self.child, "child-1", "Unregistered", strings=["leaf-1", "leaf-2"])
        self.send("leaf-1")
        other.wait_received(1)
        self.send("leaf-2")
        self.box.wait_log("Cannot route message to leaf-2")

    def test_news_without_the_role_or_of_other_kinds_changes_nothing(self):
        self.client_ok(self.box, "agent-1", "register")
        self.child("router_consumer.SendEnvelope", originator="child-1", certificate="none",
                   route=[":"], stamps=[],
                   message=dict(destination=":", type="MS-RouterRegistered", text="leaf"))
        self.box.wait_log("System message (MS-RouterRegistered) UNAUTHORISED originator child-1")
        self.news(self.child, "child-1", "Registered", number=7)
        self.box.wait_log("MS-RouterRegistered - badly formatted originator child-1")
        for name in ("x" * 5000, "a\nb", ":", "router", "agent-1", "."):
            self.news(self.child, "child-1", "Registered", text=name)
        self.send("leaf")
        self.box.wait_log("Cannot route message to leaf")
        # Neither this router's name, nor the way up, nor a client's name leads to the child.
        for address in ("agent-1", "router.agent-1"):
            self.client_ok(self.box, "agent-1", "send", address, "--text", address)
            line = self.client_ok(self.box, "agent-1", "--json", "receive")
            self.assertEqual(address, json.loads(line)["payload"])
        self.client_ok(self.box, "agent-1", "send", ":.:", "--text", "up")
        self.box.wait_log("Cannot route message to :\n")
        self.wait_no_envelopes(self.box)
        self.assertEqual([], self.child.received())

    def test_farewells_of_odd_names_take_nothing_else_away(self):
        self.client_ok(self.box, "agent-1", "register")
        self.news(self.child, "child-1", "Registered", strings=["leaf", "a.b", "a,b"])
        for name in ("x" * 5000, "a\nb", ":", "router", "agent-1", ".", "\u00e4", "a.b", ""):
            self.news(self.child, "child-1", "Unregistered", text=name)
        self.news(self.child, "child-1", "Unregistered", strings=["", "y" * 2000, "a,b", ","])
        self.send("leaf")
        self.child.wait_received(1)
        self.assertEqual("leaf.agent-9", self.child.received()[0]["destination"])
        self.send("a,b")
        self.box.wait_log("Cannot route message to a,b")

    def test_damaged_files_of_the_map_are_one_line_and_the_router_goes_on(self):
        self.assertEqual(0, self.box.stop())
        for content, directory, lines in (
                (b"\xff" * 4096, b"", 1), (b"\x7f" * 1000, b"", 1),
                (b"\x02\x00\xff\xff" * 512, b"", 1),
                # Leads to pages behind the end, which are empty.
                (b"\xff" * 4096, b"\xff" * 5000, 0)):
            (self.box.data / "LogicalTable.pag").write_bytes(content)
            (self.box.data / "LogicalTable.dir").write_bytes(directory)
            mark = len(self.box.log())
            self.box.start()
            self.client(self.box, "agent-1", "register")
            for leaf in ("leaf-1", "leaf-2", "leaf-3"):
                self.send(leaf)
                self.box.wait_log(f"Cannot route message to {leaf}", since=mark)
            self.assertEqual(0, self.box.stop())
            self.assertEqual(lines, self.box.log()[mark:].count(
                "Failed to use the logical routing database"), (content[:4], directory[:4]))

    def test_a_map_that_cannot_be_opened_is_an_error_and_the_router_starts(self):
        self.assertEqual(0, self.box.stop())
        pages = self.box.data / "LogicalTable.pag"
        pages.unlink()
        pages.mkdir()
        self.box.start()
        self.assertIn("Failed to open logical routing database", self.box.log())
        self.assertIn("Failed to open logical routing table", self.box.log())
        self.assertIn("router", self.client_ok(self.box, "agent-1", "ping"))


class Tree(SystemTest):
    """Three routers, one below the other."""

    def setUp(self):
        super().setUp()
        self.root = self.router("root", settings={"LogicalRouting": 1})
        self.middle = self.below(self.root, "middle")
        self.middle.wait_log("Logged on")
        self.client_ok(self.root, "agent-1", "register")

    def below(self, parent, name):
        return self.router(name, settings={
            "LogicalRouting": 1, "ParentAddress": "localhost", "ParentPort": parent.ior_port,
            "LogonRetryInterval": 1, "GetterTickSecs": 1, "GetterInterval": 1,
            "GetterShortInterval": 1})

    def test_a_router_two_levels_down_is_found_by_its_name_and_answers(self):
        mark = len(self.root.log())
        leaf = self.below(self.middle, "leaf")
        self.root.wait_log("MS-RouterRegistered originator middle", 30, since=mark)
        self.client_ok(leaf, "agent-9", "register")
        self.client_ok(self.root, "agent-1", "send", "leaf.agent-9", "--text", "down")
        line = self.client_ok(leaf, "agent-9", "--json", "receive")
        self.assertEqual("down", json.loads(line)["payload"])
        # A question to a router far away is answered along the same way.
        self.client_ok(self.root, "agent-1", "send", "leaf", "--type", "EM-GetClientStatus",
                       "--text", "agent-9")
        line = self.client_ok(self.root, "agent-1", "--json", "receive")
        self.assertEqual("agent-9", json.loads(line)["payload"]["name"])

    def test_what_led_through_a_child_that_unregisters_is_forgotten_at_the_top(self):
        child = self.peer(self.middle, "child-1", "router").connect()
        child("root.GetRouter")
        child("router.Register")
        child("router.Logon")
        certificate = (self.ca.issue("child-1", "router") / "certificate.pem").read_text()
        child("router_consumer.SendEnvelope", originator="child-1", certificate=certificate,
              route=[":"], stamps=[["child-1", 1]],
              message=dict(destination=":.:", type="MS-RouterRegistered",
                           strings=["leaf-1", "leaf-2"]))
        wait_until(lambda: self.root.log().count("MS-RouterRegistered originator middle") >= 2, 30,
                   "the names at the top")
        for leaf in ("leaf-1", "leaf-2"):
            self.client_ok(self.root, "agent-1", "send", leaf + ".agent-9", "--text", leaf)
        child.wait_received(2)
        mark = len(self.root.log())
        child("router.Unregister")
        self.root.wait_log("MS-RouterUnregistered originator middle", 30, since=mark)
        for leaf in ("child-1", "leaf-1", "leaf-2"):
            self.client_ok(self.root, "agent-1", "send", leaf + ".agent-9", "--text", leaf)
            self.root.wait_log(f"Cannot route message to {leaf}", since=mark)
        self.assertNotIn("Routing to middle", self.root.log()[mark:])


if __name__ == "__main__":
    unittest.main()
