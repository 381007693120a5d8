#!/usr/bin/python3
# The modules run as Ansible runs them (one JSON argument file), against a fake
# PathPlannerTopology and without any PathPlanner: argument building, result
# handling and check mode, with no playbook in between.
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
COLLECTIONS = os.path.join(HERE, '..', '..', 'contrib', 'ansible')
MODULES = 'ansible_collections.zor.pathplanner.plugins.modules.'
# Debian's python3, which has ansible-core; not whatever python3 comes first on PATH.
PYTHON = '/usr/bin/python3'
WWPN = '10:00:00:00:C9:5A:3B:10'

# A version-2 topology of the lab's two maps, each with one path per adapter.
with open(os.path.join(HERE, 'data', 'topology-v2.json')) as _f:
    TOPOLOGY = json.load(_f)


def result_lists(**lists):
    return json.dumps(dict({'changed': [], 'unchanged': [], 'refused': [], 'failed': []}, **lists))


class ModuleRun(unittest.TestCase):
    def setUp(self):
        self.agent = tempfile.mkdtemp(prefix='pp-ansible-')
        self.addCleanup(shutil.rmtree, self.agent)
        for sub in ('bin', 'log'):
            os.mkdir(os.path.join(self.agent, sub))
        shutil.copy(os.path.join(HERE, 'fake-PathPlannerTopology'), os.path.join(self.agent, 'bin', 'PathPlannerTopology'))
        self.answer('json', json.dumps(TOPOLOGY))

    def answer(self, kind, out, status=0, err=''):
        for ext, text in (('out', out), ('err', err), ('status', str(status))):
            with open(os.path.join(self.agent, 'bin', kind + '.' + ext), 'w') as f:
                f.write(text)

    def calls(self):
        try:
            with open(os.path.join(self.agent, 'bin', 'calls')) as f:
                return [json.loads(line) for line in f]
        except OSError:
            return []

    def run_module(self, name, check_mode=False, **args):
        args = dict(args, install_dir=self.agent, _ansible_check_mode=check_mode)
        path = os.path.join(self.agent, 'args.json')
        with open(path, 'w') as f:
            json.dump({'ANSIBLE_MODULE_ARGS': args}, f)
        env = dict(os.environ, PYTHONPATH=COLLECTIONS, PYTHONDONTWRITEBYTECODE='1')
        done = subprocess.run([PYTHON, '-m', MODULES + name, path], env=env, capture_output=True, text=True)
        self.assertTrue(done.stdout.strip(), done.stderr)
        return json.loads(done.stdout)


class TopologyTest(ModuleRun):
    def test_change_words_and_result(self):
        cases = [
            # params, check mode, words of the change call, its answer, changed
            ({'state': 'offline', 'wwpn': WWPN, 'maps': ['mpatha', 'mpathb'], 'force': True}, False,
             ['--offline', WWPN, '--map', 'mpatha', '--map', 'mpathb', '--force'], {'changed': ['sdb']}, True),
            ({'state': 'online', 'wwpn': WWPN}, False, ['--online', WWPN], {'unchanged': ['sdb']}, False),
            ({'state': 'offline', 'wwpn': WWPN, 'maps': ['mpatha']}, True,
             ['--offline', WWPN, '--map', 'mpatha', '--dry-run'], {'changed': [{'device': 'sdb', 'map': 'mpatha'}]},
             True),
        ]
        for params, check, words, answer, changed in cases:
            with self.subTest(params=params, check=check):
                os.remove(os.path.join(self.agent, 'bin', 'calls')) if self.calls() else None
                self.answer('change', result_lists(**answer))
                out = self.run_module('pathplanner_topology', check_mode=check, **params)
                self.assertEqual(self.calls(), [words, ['--json']])
                self.assertEqual(out['changed'], changed)
                self.assertFalse(out.get('failed', False), out)
                self.assertEqual(out['result']['changed'], answer.get('changed', []))
                self.assertIn('AGT0470I fake change ' + ' '.join(words), out['messages'][-1])
                self.assertEqual(out['ansible_facts']['multipath_topology'], TOPOLOGY)

    def test_failures_say_why(self):
        cases = [
            # the call answered, its output, exit status and error text, then what the message says
            ('change', result_lists(refused=[{'map': 'mpatha', 'reason': 'last usable path'}]), 1, '',
             ['refused', 'mpatha: last usable path', 'set force']),
            ('change', result_lists(changed=['sdb'], failed=[{'device': 'sdc', 'map': 'mpatha', 'reason': 'multipathd: fail'}]),
             1, 'PathPlannerTopology: 1 of 2 paths did not change\n',
             ['failed: sdc (mpatha): multipathd: fail', '1 of 2 paths did not change']),
            ('change', '', 2, 'PathPlannerTopology: no adapter port has the WWPN 10000000c95a3b10\n',
             ['exited with 2', 'no adapter port has the WWPN']),
            ('json', '', 1, 'PathPlannerTopology: no device-mapper multipath driver\n', ['no device-mapper multipath driver']),
            ('json', '[]', 0, '', ['expected a version 2 topology object']),
        ]
        for kind, out_text, status, err, expected in cases:
            with self.subTest(kind=kind, err=err, status=status):
                self.answer(kind, out_text, status, err)
                params = {'state': 'offline', 'wwpn': WWPN} if kind == 'change' else {}
                out = self.run_module('pathplanner_topology', **params)
                self.assertTrue(out['failed'])
                for text in expected:
                    self.assertIn(text, out['msg'])
                self.assertNotIn('ansible_facts', out)


sys.path.insert(0, os.path.join(COLLECTIONS, 'ansible_collections', 'zor', 'pathplanner', 'plugins', 'module_utils'))
import pathplanner_common  # noqa: E402  (standard library only)


class LogSnapshotTest(unittest.TestCase):
    """The run's own entries, however the log series moved while it ran."""

    # Entries appended to the one log are AnsibleE2eTest's, whose runs write a fresh log.
    def test_entries_of_the_run(self):
        old = 'd t AGT0430I earlier run\n'
        cases = [
            # name: (files before, files after, entries of the run)
            ('numbered file started', {'multipath_000001.log': old},
             {'multipath_000001.log': old, 'multipath_000002.log': 'd t AGT0456E none\n'}, ['d t AGT0456E none']),
            ('log rotated away', {'multipath.log': old + old}, {'multipath.log': 'd t A\n'}, ['d t A']),
        ]
        def write(log_dir, files):
            for file, text in files.items():
                with open(os.path.join(log_dir, file), 'w') as f:
                    f.write(text)
        for name, before, after, expected in cases:
            with self.subTest(name):
                log_dir = tempfile.mkdtemp()
                self.addCleanup(shutil.rmtree, log_dir)
                write(log_dir, before)
                snapshot = pathplanner_common.LogSnapshot(log_dir)
                write(log_dir, after)
                self.assertEqual(snapshot.new_entries(), expected)

    def test_warnings_and_errors_are_the_reason_when_there_are_any(self):
        entries = ['d t AGT0429I started', 'd t AGT0458I setting', 'd t AGT0453E failed', 'd t AGT0430I finished']
        self.assertEqual(pathplanner_common.problem_entries(entries), ['AGT0453E failed'])


class PlannerCheckModeTest(ModuleRun):
    def test_request_words(self):
        cases = [
            ({'action': 'policy', 'policy': 'failover', 'devices': ['mpatha'], 'device': 'mpathb'},
             ['-multipath', '4;mpatha;mpathb']),
            # The trace names the driver, so a state request traces at MID at least.
            ({'action': 'path_state', 'state': 'offline', 'device': 'lundev1', 'wwpns': ['a', 'b']},
             ['-debug', 'MID', '-multipath', '0;lundev1;a;b']),
            ({'action': 'rescan', 'log_limits': {'max_num_logs': 3, 'max_log_size': 64}},
             ['-maxlogsize', '64', '-maxnumlogs', '3', '-multipath', '5']),
        ]
        for params, words in cases:
            with self.subTest(params=params):
                out = self.run_module('pathplanner', check_mode=True, **params)
                self.assertFalse(out.get('failed', False), out)
                self.assertEqual(out['command'][1:], words)
        self.assertEqual(os.listdir(os.path.join(self.agent, 'log')), [])

    def test_bad_requests_run_nothing(self):
        cases = [
            ('pathplanner_topology', {'state': 'offline'}, 'wwpn'),
            ('pathplanner', {'action': 'policy', 'policy': 'failover'}, 'needs devices'),
            ('pathplanner', {'action': 'policy', 'policy': 'failover', 'devices': ['a;5']}, 'without ";"'),
        ]
        for module, params, expected in cases:
            with self.subTest(module=module, params=params):
                out = self.run_module(module, check_mode=module == 'pathplanner', **params)
                self.assertTrue(out['failed'])
                self.assertIn(expected, out['msg'])
                self.assertEqual(self.calls(), [])


if __name__ == '__main__':
    if subprocess.run([PYTHON, '-c', 'import ansible.module_utils.basic'], capture_output=True).returncode != 0:
        print('SKIP: %s has no ansible-core (apt-get install ansible-core)' % PYTHON)
        sys.exit(77)
    unittest.main()
