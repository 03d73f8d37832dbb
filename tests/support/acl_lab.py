"""A laboratory whose object database has the users of the package."""

import hashlib
import pathlib
import subprocess

import redis

from lab import wait_for
from netconf_lab import Front
from tarn_lab import TarnLab

ACL = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "redis.acl"
PROGRAMS = ("agent", "tarnd", "front", "reader")


def password_of(user):
    return f"the-secret-of-{user}"


class AclLab(TarnLab):
    """A switch whose server knows the users of the package, and `admin`, who is the test's own."""

    role = "lease"

    def start_redis(self, wait=True):
        text = ACL.read_text()
        for user in PROGRAMS:
            digest = hashlib.sha256(password_of(user).encode()).hexdigest()
            assert f"user {user} on resetpass " in text
            text = text.replace(f"user {user} on resetpass ", f"user {user} on resetpass #{digest} ")
        file = self.folder / "redis.acl"
        file.write_text(text + "user admin on >admin ~* &* +@all\n")
        self.redis_server = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", str(self.redis_socket), "--unixsocketperm", "777",
             "--databases", "32", "--save", "", "--aclfile", str(file), "--dir", str(self.folder)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if wait:
            wait_for(self._redis_answers, 10, "redis-server answers")

    def database(self, number, user="admin"):
        password = "admin" if user == "admin" else password_of(user)
        return redis.Redis(unix_socket_path=str(self.redis_socket), db=number, username=user, password=password)

    def set_password(self, user, text, mode=0o600):
        file = self.folder / f"{user}.password"
        file.write_text(text + "\n")
        file.chmod(mode)

    def file_of(self, user):
        return self.folder / f"{user}.toml"

    def write_platform_file(self, extra=""):
        super().write_platform_file(extra + f'[role]\nmode = "{self.role}"\n')
        for user in PROGRAMS:
            self.set_password(user, password_of(user))
            login = f'[redis]\nuser = "{user}"\npassword_file = "{self.folder}/{user}.password"\n'
            self.file_of(user).write_text(self.platform_file.read_text().replace("[redis]\n", login))
        self.platform_file.write_text(self.file_of("agent").read_text())

    def environment(self):
        return {**super().environment(), "LDA_PLATFORM": str(self.file_of("tarnd"))}

    def refusals(self):
        """The server's list of refused requests and logins."""
        return [{key: entry[key] for key in ("reason", "context", "object", "username")}
                for entry in self.database(0).acl_log()]


class AclFront(Front):
    def command(self):
        words = super().command()
        return [self.lab.file_of("front") if word == self.lab.platform_file else word for word in words]
