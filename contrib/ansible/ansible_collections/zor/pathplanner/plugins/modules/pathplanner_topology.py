#!/usr/bin/python
# -*- coding: utf-8 -*-
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r'''
---
module: pathplanner_topology
short_description: Device-mapper multipath topology as facts; paths offline and online by adapter WWPN
version_added: "5.2.8"
description:
  - Runs the installed C(PathPlannerTopology) and returns the device-mapper multipath
    topology (maps, their path groups and paths, each path with its adapter's WWPN) as the
    fact C(multipath_topology).
  - With I(state) and I(wwpn) it first takes every path through that adapter port offline
    or brings it back online, optionally only in I(maps). Taking paths offline is refused,
    changing nothing, when a map would be left without a usable path, unless I(force) is set.
  - The tool is run directly, never through a shell.
options:
  state:
    description:
      - C(offline) fails the adapter's paths in multipathd, C(online) reinstates them.
      - Without it the module only gathers the topology.
    type: str
    choices: [offline, online]
  wwpn:
    description:
      - The adapter port's WWPN, 16 hex digits, with or without C(0x) and colons, any case.
      - Required with I(state).
    type: str
  maps:
    description: Only paths of these maps change; all maps when empty.
    type: list
    elements: str
    default: []
  force:
    description: Take paths offline even where a map would be left without a usable path.
    type: bool
    default: false
  install_dir:
    description: The agent directory holding C(bin/PathPlannerTopology) and C(log/).
    type: path
    default: /opt/ZOR/QLX/agent
notes:
  - Check mode is supported; with I(state) it runs the tool's C(--dry-run), which reports what
    would change and changes nothing.
  - The facts are read after the change, so they show the paths' new states.
author:
  - PathPlanner developers
'''

EXAMPLES = r'''
- name: Read the multipath topology
  zor.pathplanner.pathplanner_topology:

- name: Paths whose adapter is in maintenance
  ansible.builtin.debug:
    msg: "{{ multipath_topology.maps | map(attribute='groups') | flatten
             | map(attribute='paths') | flatten
             | selectattr('adapterWwpn', 'equalto', '10000000c95a3b10') | map(attribute='device') }}"

- name: Drain adapter port 10:00:00:00:c9:5a:3b:10 on two maps
  zor.pathplanner.pathplanner_topology:
    state: offline
    wwpn: "10:00:00:00:c9:5a:3b:10"
    maps: [mpatha, mpathb]

- name: Bring it back
  zor.pathplanner.pathplanner_topology:
    state: online
    wwpn: "10:00:00:00:c9:5a:3b:10"
'''

RETURN = r'''
ansible_facts:
  description: Facts added to the host.
  returned: when the topology could be read
  type: complex
  contains:
    multipath_topology:
      description:
        - The topology, version 2 - C(version), C(driver) and C(maps); each map has its
          C(groups), each group its C(paths), each path its C(device), C(dmState),
          C(checkerState) and C(adapterWwpn) among others.
      type: dict
      sample: {"version": 2, "driver": "multipath-tools v0.9.4", "maps": []}
result:
  description:
    - What C(--offline)/C(--online) reported - the paths it C(changed), those already in the
      requested state (C(unchanged)), those it C(refused) to touch and those that C(failed).
    - In check mode, what would change.
  returned: with state
  type: dict
  sample: {"changed": [], "unchanged": [], "refused": [], "failed": []}
rc:
  description: The exit status of the C(--offline)/C(--online) run, else of the topology read.
  returned: when the tool ran
  type: int
  sample: 0
messages:
  description: The activity-log entries the change wrote, oldest first.
  returned: with state
  type: list
  elements: str
command:
  description: The last command that ran, one word per element.
  returned: when the tool ran
  type: list
  elements: str
stdout:
  description: Standard output of the last command.
  returned: when the tool ran
  type: str
stderr:
  description: Standard error of the last command.
  returned: when the tool ran
  type: str
'''

import json
import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.zor.pathplanner.plugins.module_utils.pathplanner_common import (
    DEFAULT_INSTALL_DIR, LogSnapshot, problem_entries, tool_path)

RESULT_LISTS = ('changed', 'unchanged', 'refused', 'failed')


def change_command(params, dry_run):
    """The words of the --offline/--online run."""
    command = [tool_path(params['install_dir'], 'PathPlannerTopology'), '--' + params['state'], params['wwpn']]
    for name in params['maps']:
        command += ['--map', name]
    if params['force']:
        command.append('--force')
    if dry_run:
        command.append('--dry-run')
    return command


def parse_json(text):
    try:
        return json.loads(text), None
    except ValueError as error:
        return None, 'output is not JSON (%s)' % error


def parse_change(out):
    """The four result lists, each a list (missing ones empty), or an error text."""
    data, error = parse_json(out)
    if error:
        return None, error
    if not isinstance(data, dict):
        return None, 'output is not a JSON object'
    result = {}
    for key in RESULT_LISTS:
        value = data.get(key, [])
        if not isinstance(value, list):
            return None, '"%s" is not a list' % key
        result[key] = value
    return result, None


def describe(entry):
    """One result entry in words: a device name, or "device (map): reason"."""
    if not isinstance(entry, dict):
        return str(entry)
    name = entry.get('device') or entry.get('path') or entry.get('map') or json.dumps(entry, sort_keys=True)
    if entry.get('map') and entry.get('map') != name:
        name += ' (%s)' % entry['map']
    reason = entry.get('reason') or entry.get('error') or entry.get('message')
    return name + (': %s' % reason if reason else '')


def last_line(text):
    lines = [line for line in (text or '').strip().splitlines() if line.strip()]
    return lines[-1] if lines else ''


def change_failure(rc, result, err, messages, params):
    parts = ['PathPlannerTopology --%s %s exited with %d' % (params['state'], params['wwpn'], rc)]
    if result and result['refused']:
        parts.append('refused, a map would lose its last usable path (set force to override): '
                     + ', '.join(describe(e) for e in result['refused']))
    if result and result['failed']:
        parts.append('failed: ' + ', '.join(describe(e) for e in result['failed']))
    if last_line(err):
        parts.append(last_line(err))
    elif problem_entries(messages):
        parts.append(' '.join(problem_entries(messages)))
    return '; '.join(parts)


def run_change(module):
    """Runs --offline/--online; returns what goes into the module's result."""
    params = module.params
    command = change_command(params, module.check_mode)
    snapshot = LogSnapshot(os.path.join(params['install_dir'], 'log'))
    rc, out, err = module.run_command(command)
    result, error = parse_change(out)
    outcome = dict(rc=rc, stdout=out, stderr=err, command=command, messages=snapshot.new_entries())
    outcome['result'] = result or dict((key, []) for key in RESULT_LISTS)
    outcome['changed'] = bool(result and result['changed'])
    if rc != 0:
        outcome['failed'] = True
        outcome['msg'] = change_failure(rc, result, err, outcome['messages'], params)
    elif error:
        outcome['failed'] = True
        outcome['msg'] = 'PathPlannerTopology --%s: %s' % (params['state'], error)
    return outcome


def read_topology(module):
    """(facts or None, outcome of the read)."""
    command = [tool_path(module.params['install_dir'], 'PathPlannerTopology'), '--json']
    rc, out, err = module.run_command(command)
    outcome = dict(rc=rc, stdout=out, stderr=err, command=command)
    if rc != 0:
        return None, dict(outcome, msg='PathPlannerTopology --json exited with %d: %s' % (rc, last_line(err)))
    data, error = parse_json(out)
    if error is None and (not isinstance(data, dict) or data.get('version') != 2):
        error = 'expected a version 2 topology object'
    if error:
        return None, dict(outcome, msg='PathPlannerTopology --json: ' + error)
    return data, outcome


def main():
    module = AnsibleModule(
        argument_spec=dict(
            state=dict(type='str', choices=['offline', 'online']),
            wwpn=dict(type='str'),
            maps=dict(type='list', elements='str', default=[]),
            force=dict(type='bool', default=False),
            install_dir=dict(type='path', default=DEFAULT_INSTALL_DIR),
        ),
        required_if=[('state', 'offline', ['wwpn']), ('state', 'online', ['wwpn'])],
        required_by={'wwpn': 'state'},
        supports_check_mode=True,
    )
    binary = tool_path(module.params['install_dir'], 'PathPlannerTopology')
    if not os.access(binary, os.X_OK):
        module.fail_json(msg='%s is not installed or not executable' % binary)
    outcome = dict(changed=False)
    if module.params['state']:
        outcome = run_change(module)
        if outcome.get('failed'):
            module.fail_json(**outcome)
    facts, read = read_topology(module)
    if facts is None:
        if not module.params['state']:
            module.fail_json(changed=False, **read)
        module.warn('the topology could not be read after the change: ' + read['msg'])
    else:
        outcome['ansible_facts'] = dict(multipath_topology=facts)
        if not module.params['state']:
            outcome.update(read)
    module.exit_json(**outcome)


if __name__ == '__main__':
    main()
