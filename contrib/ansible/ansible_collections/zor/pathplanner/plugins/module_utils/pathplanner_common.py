# -*- coding: utf-8 -*-
# Shared by the zor.pathplanner modules: where the tools live, what their exit
# statuses mean, and which activity-log entries a run wrote.
from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import re

DEFAULT_INSTALL_DIR = '/opt/ZOR/QLX/agent'

# The exit statuses PathPlanner documents; anything else is the rescan
# script's or the multipath driver's own result.
EXIT_STATUS = {
    0: 'success',
    1: 'out of memory at start',
    3: 'rejected command line or non-numeric setting',
    5: 'unknown setting',
    6: 'missing or incomplete request',
    8: 'rescan cancelled by SIGTERM, or its script could not be written',
    30: 'trace could not start',
    59: 'no installation directory',
    72: 'message catalogue could not start',
    169: 'no multipath driver',
    170: 'vendor device unknown',
    172: 'setting not supported by the device-mapper driver',
    173: 'driver command failed',
}

# A rescan passes its script's status through: 1 is then far more likely the
# script finding no SCSI subsystem or no adapter than memory running out.
RESCAN_SCRIPT_STATUS = {
    1: 'the rescan script found no SCSI subsystem or no host adapter (or out of memory at start)',
}

# multipath.log, or multipath_NNNNNN.log of the numbered series.
_LOG_NAME = re.compile(r'^multipath(_[0-9]{6,})?\.log$')

# "<date> <time>.<ms> <KEY> text": the key's last letter is its severity.
_START_FINISH = ('AGT0429I', 'AGT0430I')
_LOG_KEY = re.compile(r'^\S+ \S+ ([A-Z]{3}[0-9]{4}([IWE]))\b')


def rc_meaning(rc, rescan=False):
    """The exit status as the administrator reads it in the README."""
    if rescan and rc in RESCAN_SCRIPT_STATUS:
        return RESCAN_SCRIPT_STATUS[rc]
    if rc in EXIT_STATUS:
        return EXIT_STATUS[rc]
    if rescan:
        return 'the rescan script\'s or the driver\'s own result %d' % rc
    return 'the multipath driver\'s own result %d' % rc


def tool_path(install_dir, name):
    return os.path.join(install_dir, 'bin', name)


class LogSnapshot(object):
    """Sizes of the activity logs before a run, so the run's own entries can
    be read afterwards: the tail of a log that grew, all of a log that is new
    or was replaced (another inode, or shorter than before)."""

    def __init__(self, log_dir):
        self.log_dir = log_dir
        self.before = self._scan()

    def _scan(self):
        files = {}
        try:
            names = os.listdir(self.log_dir)
        except OSError:
            return files
        for name in names:
            if not _LOG_NAME.match(name):
                continue
            try:
                st = os.stat(os.path.join(self.log_dir, name))
            except OSError:
                continue
            files[name] = (st.st_ino, st.st_size)
        return files

    def new_entries(self):
        entries = []
        for name, (inode, size) in sorted(self._scan().items()):
            old = self.before.get(name)
            start = old[1] if old and old[0] == inode and old[1] <= size else 0
            if start < size:
                entries.extend(_read_lines(os.path.join(self.log_dir, name), start))
        return entries


def _read_lines(path, start):
    try:
        with open(path, 'rb') as log:
            log.seek(start)
            text = log.read().decode('utf-8', 'replace')
    except (IOError, OSError):
        return []
    return [line for line in text.splitlines() if line.strip()]


def problem_entries(entries):
    """The entries that say why a run failed: its warnings and errors, else
    whatever it logged between its start and finish lines."""
    keyed = [(m.group(1), m.group(2), line[m.start(1):]) for m, line in
             ((_LOG_KEY.match(line), line) for line in entries) if m]
    found = [text for key, severity, text in keyed if severity in 'WE']
    return found or [text for key, severity, text in keyed if key not in _START_FINISH]


def read_tail(path, start):
    """The bytes of path from start on (all of it when it shrank), or b''."""
    try:
        with open(path, 'rb') as stream:
            stream.seek(0, os.SEEK_END)
            end = stream.tell()
            stream.seek(start if start <= end else 0)
            return stream.read()
    except (IOError, OSError):
        return b''


def file_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0
