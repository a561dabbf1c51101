"""Passwords: every player comes in with the right one, and none with a wrong one or without."""

import unittest

from case import InteropCase
from clients import PLAYERS, FfmpegPusher, MpvPlayer, mismatch

PICTURES = 30
USERS = {"SuperUser": "admin", "SuperPwd": "s3cret", "NumUsers": "1", "UserName0": "guest", "UserPwd0": "pass word"}


class Auth(InteropCase):
    def check(self, auth_type):
        self.start(SERVER={"AuthType": auth_type}, USERS=USERS)
        self.pusher = self.add(FfmpegPusher(self.dir, self.server.url(), options=("-tune", "zerolatency")))
        self.wait_program()
        let_in = self.play("right", "admin:s3cret") + self.play("listed", "guest:pass%20word", PLAYERS[:1])
        self.refuse("wrong", "admin:secret", "403")
        self.refuse("swapped", "guest:s3cret", "403")
        self.refuse("nobody", "", "401")
        self.assertEqual(self.pusher.interrupted, self.pusher.stop())
        self.assert_empty()
        reference = self.pusher.reference()
        for player in let_in:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, reference))
                self.assertEqual([], player.complaints())

    def start_players(self, case, credentials, players):
        return [self.add(make(self.dir, self.server.url(credentials=credentials), transport, PICTURES,
                              name=case + "-" + make.__name__)) for make, transport in players]

    def play(self, case, credentials, players=PLAYERS):
        players = self.start_players(case, credentials, players)
        for player in players:
            self.assertEqual(0, player.wait(30), player.name)
        return players

    def refuse(self, case, credentials, code):
        for player in self.start_players(case, credentials, PLAYERS):
            with self.subTest(player.name):
                self.assertNotIn(player.wait(30), (0, "still running"))
                self.assertEqual(0, len(player.pictures))
                complaints = "\n".join(player.complaints())
                if complaints or not isinstance(player, MpvPlayer):  # mpv may end before its log is written
                    self.assertRegex(complaints, code + "|Unauthorized|Forbidden")
        self.assert_only(1)

    def test_basic(self):
        self.check(1)

    def test_digest(self):
        self.check(2)


if __name__ == "__main__":
    unittest.main()
