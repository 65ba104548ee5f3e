# -*- coding: utf-8 -*-
# Copyright: 2026 sylvane-service maintainers. All rights reserved.
"""The one way the modules talk to sylvane-service: run it with --json, read
its objects, and turn its failures into fail_json with its error code, its
message and the Transfer Agent's reason."""

from __future__ import absolute_import, division, print_function
__metaclass__ = type

import json

# Exit statuses of the tool: 0 done or nothing pending, 4 --diff with changes
# pending; 1, 2 and 3 are failures described by the final object.
PENDING = 4

# Options every module shares.
COMMON_ARGS = dict(
    executable=dict(type='path'),
)

# A state object of a plan says how a service or the proxy is or will be;
# only these fields take part in before/after (status is the agent's word,
# not something a playbook declares).
STATE_FIELDS = ('target', 'virtual_port', 'enabled', 'address', 'type')


def find_tool(module):
    """Path of sylvane-service: the executable option, else PATH (fails the
    task when it is not there)."""
    return module.params.get('executable') or module.get_bin_path('sylvane-service', required=True)


def read_objects(stdout):
    """The JSON objects the tool printed, one per line; None when a line is
    not a JSON object."""
    objects = []
    for line in stdout.splitlines():
        if not line.strip():
            continue
        try:
            value = json.loads(line)
        except ValueError:
            return None
        if not isinstance(value, dict):
            return None
        objects.append(value)
    return objects


def run(module, args, data=None, environ=None, ok_statuses=(0,)):
    """Runs sylvane-service --json ARGS (DATA on standard input, ENVIRON added
    to the environment) and returns (status, objects). A status outside
    OK_STATUSES, output that is not JSON or a final object without "ok": true
    fails the task; the caller owns nothing to clean up."""
    command = [find_tool(module), '--json'] + list(args)
    status, out, err = module.run_command(command, data=data, environ_update=environ or {},
                                          binary_data=data is not None)
    objects = read_objects(out)
    if not objects:
        module.fail_json(msg='sylvane-service %s printed no JSON result (status %d): %s'
                         % (args[0], status, (err or out).strip()),
                         rc=status, stdout=out, stderr=err)
    final = objects[-1]
    if status not in ok_statuses or final.get('ok') is not True:
        fail(module, status, final, objects[:-1], err)
    return status, objects


def fail(module, status, final, earlier, err):
    """Fails the task with the tool's own account of the failure."""
    message = final.get('message') or 'sylvane-service failed (status %d)' % status
    result = dict(msg=message, rc=status, error=final.get('error', 'unknown'), stderr=err,
                  changed=bool(final.get('changed', False)))
    for key in ('reason', 'service', 'summary', 'not_tried'):
        if key in final:
            result[key] = final[key]
    steps = [o for o in earlier if 'action' in o]
    if steps:
        result['steps'] = steps
    module.fail_json(**result)


def key_arguments(module):
    """Options and environment that hand the API key to an apply: a key file
    by path, a key through SYLVANE_API_KEY, never on the command line."""
    if module.params.get('api_key_file'):
        return ['--api-key-file', module.params['api_key_file']], {}
    if module.params.get('api_key'):
        return [], {'SYLVANE_API_KEY': module.params['api_key']}
    return [], {}


def document(services=None, proxy=None):
    """A desired-state document (JSON, which the tool reads as YAML 1.2)."""
    doc = {'version': 1}
    if services is not None:
        doc['services'] = services
    if proxy is not None:
        doc['proxy'] = proxy
    return json.dumps(doc, indent=2, sort_keys=True) + '\n'


def plan(module, source, data=None, prune=False):
    """The tool's plan for SOURCE ('-' reads DATA): its list of changes and
    its summary. Nothing changes on the agent."""
    args = ['--diff', source] + (['--prune'] if prune else [])
    dummy, objects = run(module, args, data=data, ok_statuses=(0, PENDING))
    final = objects[-1]
    return final.get('changes', []), final.get('summary', {})


def pending(changes):
    """The changes that would alter the agent."""
    return [c for c in changes if c.get('action') not in ('unchanged', 'not_managed')]


def apply(module, source, data=None, prune=False):
    """Carries out the plan for SOURCE; returns (changed, steps, summary)."""
    key_args, environ = key_arguments(module)
    args = ['--apply', source] + (['--prune'] if prune else []) + key_args
    if module.params.get('wait'):
        args += ['--wait', str(module.params['wait'])]
    dummy, objects = run(module, args, data=data, environ=environ)
    final = objects[-1]
    steps = [o for o in objects[:-1] if 'action' in o]
    return bool(final.get('changed')), steps, final.get('summary', {})


def overlay(base, changes, side):
    """BASE with the SIDE ('before' or 'after') fields of CHANGES laid over
    it; None when a change has no such side (a service that is created has
    no before, a removed one no after). The earliest change's before and the
    latest change's after win: they hold the agent's state before the run
    and the state it ends in."""
    state = dict(base)
    for change in (changes if side == 'after' else reversed(changes)):
        part = change.get(side)
        if part is None:
            return None
        state.update((k, v) for k, v in part.items() if k in STATE_FIELDS)
    # The agent names proxy types in capitals; the tool compares them so.
    if isinstance(state.get('type'), str):
        state['type'] = state['type'].upper()
    return state
