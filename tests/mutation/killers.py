# SPDX-License-Identifier: Apache-2.0
"""Which test notices each mutant, as it is remembered in the source folder, so that it is the first one to be tried."""

import hashlib

HEAD = """# SPDX-License-Identifier: Apache-2.0
#
# What notices each change of the sources: a hash of the change, and the test. Written by tests/mutation/run --record.
"""


def hash_of(mutant):
    return hashlib.sha256(f"{mutant.file}: {mutant.name}".encode()).hexdigest()[:12]


class Killers:
    def __init__(self, path):
        self.path = path
        lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
        self.all = dict(line.split(" ", 1) for line in lines if line and not line.startswith("#"))

    def of(self, mutant):
        """The name of the program, and that of the test or what else is known of its end; None for each."""
        program, _, test = self.all.get(hash_of(mutant), "").rpartition(": ")
        return program or None, test or None

    def record(self, noticed, there):
        """`noticed`: what noticed each mutant that was judged. Of the others those stay that are still there."""
        known = {hash_of(mutant) for mutant in there}
        self.all = {key: by for key, by in self.all.items() if key in known}
        self.all.update({hash_of(mutant): by for mutant, by in noticed.items()})
        self.path.write_text(HEAD + "".join(f"{key} {by}\n" for key, by in sorted(self.all.items())), encoding="utf-8")
