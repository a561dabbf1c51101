"""Passwords: every player comes in with the right one."""

from case import InteropCase
from clients import PLAYERS, FfmpegPusher, GstPusher, OrxPusher

USERS = {"SuperUser": "admin", "SuperPwd": "s3cret", "NumUsers": "1", "UserName0": "guest", "UserPwd0": "pass word"}


class Auth(InteropCase):
    def check(self, auth_type, **guard):
        self.start(SERVER={"AuthType": auth_type}, USERS=USERS, GUARD=guard)
        pusher = self.push(FfmpegPusher, options=("-tune", "zerolatency"))
        let_in = []
        for case, credentials, players in (("right", "admin:s3cret", PLAYERS),
                                           ("listed", "guest:pass%20word", PLAYERS[:1])):
            let_in += self.play(30, players, self.server.url(credentials=credentials), case)
            self.assert_ended(let_in, 30)
        self.assert_only(1)
        self.end(pusher)
        self.assert_shown(let_in, pusher)

    def test_basic(self):
        self.check(1)

    def test_digest(self):
        self.check(2)

    def test_fresh_nonce(self):
        """Each names the program in its own way, and answers the challenge from the address that got it."""
        self.check(2, FreshNonce="1", AuthFailDelay="500")

    def test_announce(self):
        """Pushers answer the challenge that they know best; everybody watches, without a password."""
        self.start(USERS=USERS, GUARD={"AnnounceAuth": "1", "StrictRoles": "1", "FreshNonce": "1"})
        for make in (FfmpegPusher, GstPusher, OrxPusher):
            with self.subTest(make.__name__):
                pusher = self.push(make, credentials="admin:s3cret")
                players = self.play(30, PLAYERS[:1], name=make.__name__)
                self.assert_ended(players, 30)
                self.end(pusher)
                self.assert_shown(players, pusher)
