#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
---
module: pathplanner
short_description: Rescan buses, set multipath policies and path states with PathPlanner
version_added: "5.2.8"
description:
  - Runs the installed C(PathPlanner) tool of the storage-management agent once, with the
    request an agent would send, and reports its exit status with its meaning and the
    activity-log entries the run wrote.
  - The tool is run directly, never through a shell.
  - On a device-mapper host a path-state request succeeds without changing anything; the
    module then reports C(changed=false) with a warning. Use M(zor.pathplanner.pathplanner_topology)
    to take such paths offline or online.
  - A rescan whose C(/proc/scsi/scsi) is the same after the run as before found no new device
    and reports C(changed=false) with a warning.
options:
  action:
    description:
      - C(rescan) walks the SCSI and Fibre Channel buses, then lets the multipath driver
        reconfigure (with a driver present the tool waits 60 seconds for the system to settle).
      - C(policy) sets the path-selection I(policy) of I(devices).
      - C(path_state) sets the paths of one I(device) through the adapter I(wwpns) to I(state).
    type: str
    required: true
    choices: [rescan, policy, path_state]
  policy:
    description: The path-selection policy; required with C(action=policy).
    type: str
    choices: [load_balancing, round_robin, failover]
  devices:
    description:
      - The multipath devices whose policy is set (map names such as C(mpatha), or the vendor
        driver's device names). I(device) adds one more.
    type: list
    elements: str
    default: []
  device:
    description: The multipath device whose paths change; required with C(action=path_state).
    type: str
  wwpns:
    description: The adapter WWPNs whose paths change; required with C(action=path_state).
    type: list
    elements: str
    default: []
  state:
    description: The state the paths are set to; required with C(action=path_state).
    type: str
    choices: [online, offline]
  debug:
    description:
      - Trace level of the run (C(-debug)); the trace is C(log/multipath.trace).
      - Path-state requests always trace at least at C(MID), because the trace is where
        the tool tells which multipath driver served the request.
    type: str
    choices: [MIN, MID, MAX]
  log_limits:
    description:
      - Limits of the activity log; any of them makes the tool write the numbered
        C(log/multipath_NNNNNN.log) series instead of C(log/multipath.log).
    type: dict
    suboptions:
      max_log_size:
        description: C(-maxlogsize), in KB.
        type: int
      max_num_logs:
        description: C(-maxnumlogs).
        type: int
      max_num_runs:
        description: C(-maxnumruns).
        type: int
      max_num_days:
        description: C(-maxnumdays).
        type: int
  install_dir:
    description: The agent directory holding C(bin/PathPlanner) and C(log/).
    type: path
    default: /opt/ZOR/QLX/agent
notes:
  - Check mode is supported; it reports the command that would run and runs nothing.
  - Needs root on the managed host, as the tool itself does.
author:
  - PathPlanner developers
'''

EXAMPLES = r'''
- name: Rescan the SCSI and Fibre Channel buses
  zor.pathplanner.pathplanner:
    action: rescan

- name: Round robin on two maps
  zor.pathplanner.pathplanner:
    action: policy
    policy: round_robin
    devices: [mpatha, mpathb]

- name: Take the paths of one device through an adapter offline
  zor.pathplanner.pathplanner:
    action: path_state
    device: lundev1
    wwpns: ['10000000c95a3b10']
    state: offline
  register: drained

- name: Show why it failed
  ansible.builtin.debug:
    msg: "{{ drained.rc }} ({{ drained.rc_meaning }}): {{ drained.messages }}"
  when: drained is failed
'''

RETURN = r'''
rc:
  description: The exit status of PathPlanner; absent in check mode.
  returned: when the tool ran
  type: int
  sample: 173
rc_meaning:
  description: What the exit status means, from the tool's exit-status table.
  returned: when the tool ran
  type: str
  sample: driver command failed
messages:
  description: The activity-log entries this run wrote, oldest first.
  returned: when the tool ran
  type: list
  elements: str
  sample:
    - "2026-11-24 03:40:01.120 AGT0429I PathPlanner started with the command line: -multipath 3;lundev0"
    - "2026-11-24 03:40:01.310 AGT0453E The multipath driver could not change the device lundev0."
    - "2026-11-24 03:40:01.311 AGT0430I PathPlanner finished with return code 173."
command:
  description: The command line that ran, or would run in check mode, one word per element.
  returned: always
  type: list
  elements: str
  sample: [/opt/ZOR/QLX/agent/bin/PathPlanner, -multipath, "3;lundev0"]
request:
  description: The request string handed to C(-multipath).
  returned: always
  type: str
  sample: "0;lundev1;10000000c95a3b10"
driver:
  description: The multipath driver that served a path-state request, as the trace names it
    (C(device-mapper), C(vendor)), or C(null) when the trace did not say.
  returned: with action=path_state when the tool ran
  type: str
  sample: device-mapper
stdout:
  description: What the tool printed on standard output.
  returned: when the tool ran
  type: str
stderr:
  description: What the tool printed on standard error.
  returned: when the tool ran
  type: str
'''

import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zor.pathplanner.plugins.module_utils.pathplanner_common import (
    DEFAULT_INSTALL_DIR, LogSnapshot, file_size, problem_entries, rc_meaning, read_tail, tool_path)

SETTINGS = {
    ('path_state', 'offline'): 0,
    ('path_state', 'online'): 1,
    ('policy', 'load_balancing'): 2,
    ('policy', 'round_robin'): 3,
    ('policy', 'failover'): 4,
}
RESCAN_SETTING = 5
LOG_LIMIT_FLAGS = (('max_log_size', '-maxlogsize'), ('max_num_logs', '-maxnumlogs'),
                   ('max_num_runs', '-maxnumruns'), ('max_num_days', '-maxnumdays'))
DEBUG_LEVELS = ('MIN', 'MID', 'MAX')
# The trace lines of the tool's driver probe.
DRIVER_TRACES = ((b'Found Multipath DM driver', 'device-mapper'),
                 (b'Found Multipath ZOR ZPL driver', 'vendor'))
SCSI_DEVICES = '/proc/scsi/scsi'


def request_words(module):
    """The tokens of the -multipath request, or fails the module."""
    p = module.params
    action = p['action']
    if action == 'rescan':
        return [str(RESCAN_SETTING)]
    if action == 'policy':
        devices = list(p['devices']) + ([p['device']] if p['device'] else [])
        if not devices:
            module.fail_json(msg='action=policy needs devices (or device)')
        return [str(SETTINGS[('policy', p['policy'])])] + devices
    if not p['device'] or not p['wwpns']:
        module.fail_json(msg='action=path_state needs device and wwpns')
    return [str(SETTINGS[('path_state', p['state'])]), p['device']] + list(p['wwpns'])


def check_words(module, words):
    # A ";" inside a name would silently split it into two request tokens.
    for word in words[1:]:
        if not word or ';' in word or word != word.strip():
            module.fail_json(msg='device and WWPN names must be non-empty, without ";" or surrounding blanks: %r'
                             % word)


def debug_level(params):
    level = params['debug']
    if params['action'] == 'path_state' and DEBUG_LEVELS.index(level or 'MIN') < DEBUG_LEVELS.index('MID'):
        level = 'MID'
    return level


def build_command(module, request):
    p = module.params
    command = [tool_path(p['install_dir'], 'PathPlanner')]
    level = debug_level(p)
    if level:
        command += ['-debug', level]
    for key, flag in LOG_LIMIT_FLAGS:
        value = (p['log_limits'] or {}).get(key)
        if value is not None:
            command += [flag, str(value)]
    return command + ['-multipath', request]


def served_by(trace_text):
    for marker, driver in DRIVER_TRACES:
        if marker in trace_text:
            return driver
    return None


def read_scsi_devices():
    try:
        with open(SCSI_DEVICES) as devices:
            return devices.read()
    except (IOError, OSError):
        return None


def judge_change(action, driver, scsi_before, scsi_after):
    """changed, and the warning that says why not, for a run that succeeded."""
    if action == 'path_state' and driver == 'device-mapper':
        return False, ('the device-mapper driver leaves path states unchanged on this request, by design; '
                       'use zor.pathplanner.pathplanner_topology with state offline/online to change them')
    if action == 'rescan' and scsi_before is not None and scsi_before == scsi_after:
        return False, 'the rescan found no new device (%s is unchanged)' % SCSI_DEVICES
    return True, None


def failure_message(result):
    text = 'PathPlanner exited with %d (%s)' % (result['rc'], result['rc_meaning'])
    problems = problem_entries(result['messages'])
    if problems:
        text += ': ' + ' '.join(problems)
    elif result['stderr'].strip():
        text += ': ' + result['stderr'].strip().splitlines()[-1]
    return text


def run_tool(module, command, action):
    log_dir = os.path.join(module.params['install_dir'], 'log')
    trace = os.path.join(log_dir, 'multipath.trace')
    snapshot = LogSnapshot(log_dir)
    trace_start = file_size(trace)
    scsi_before = read_scsi_devices() if action == 'rescan' else None
    rc, out, err = module.run_command(command, use_unsafe_shell=False)
    result = dict(rc=rc, rc_meaning=rc_meaning(rc, rescan=action == 'rescan'),
                  messages=snapshot.new_entries(), stdout=out, stderr=err)
    driver = None
    if action == 'path_state':
        driver = served_by(read_tail(trace, trace_start))
        result['driver'] = driver
    if rc != 0:
        result.update(failed=True, changed=False, msg=failure_message(result))
        return result
    scsi_after = read_scsi_devices() if action == 'rescan' else None
    changed, warning = judge_change(action, driver, scsi_before, scsi_after)
    result.update(changed=changed, msg='PathPlanner succeeded')
    if warning:
        module.warn(warning)
        result['msg'] += '; ' + warning
    return result


def main():
    module = AnsibleModule(
        argument_spec=dict(
            action=dict(type='str', required=True, choices=['rescan', 'policy', 'path_state']),
            policy=dict(type='str', choices=['load_balancing', 'round_robin', 'failover']),
            devices=dict(type='list', elements='str', default=[]),
            device=dict(type='str'),
            wwpns=dict(type='list', elements='str', default=[]),
            state=dict(type='str', choices=['online', 'offline']),
            debug=dict(type='str', choices=list(DEBUG_LEVELS)),
            log_limits=dict(type='dict', options=dict(
                max_log_size=dict(type='int'), max_num_logs=dict(type='int'),
                max_num_runs=dict(type='int'), max_num_days=dict(type='int'))),
            install_dir=dict(type='path', default=DEFAULT_INSTALL_DIR),
        ),
        required_if=[('action', 'policy', ['policy']), ('action', 'path_state', ['device', 'wwpns', 'state'])],
        supports_check_mode=True,
    )
    words = request_words(module)
    check_words(module, words)
    request = ';'.join(words)
    command = build_command(module, request)
    if module.check_mode:
        module.exit_json(changed=True, command=command, request=request,
                         msg='check mode: would run ' + ' '.join(command))
    if not os.access(command[0], os.X_OK):
        module.fail_json(msg='%s is not installed or not executable' % command[0], command=command, request=request)
    result = run_tool(module, command, module.params['action'])
    result.update(command=command, request=request)
    if result.get('failed'):
        module.fail_json(**result)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
