# -*- coding: utf-8 -*-
# Copyright: 2026 sylvane-service maintainers. All rights reserved.

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: service
short_description: Declare, enable, disable or remove one service of the Sylvane Transfer Agent
version_added: 0.1.0
description:
  - Makes one service (tenant) of the Transfer Agent on the managed host match the task,
    through C(sylvane-service) on that host.
  - C(present), C(enabled) and C(disabled) hand a one-service desired-state document to
    C(sylvane-service --diff -) and, when something differs and not in check mode, to
    C(sylvane-service --apply -). Other services are left alone.
  - C(absent) lists the services (C(sylvane-service -l)) and removes the service
    (C(sylvane-service -r)) when the agent has it.
  - I(clear_services) and the API key cannot be read back from the agent; they are used
    when the service is created and never cause a change afterwards.
author: sylvane-service maintainers (@sylvane)
options:
  name:
    description: Name of the service (at most 255 bytes of UTF-8).
    type: str
    required: true
  target:
    description:
      - Local address the service publishes, as C(IPV4:PORT) (four decimal octets, port 1-65535).
      - Required unless I(state=absent).
    type: str
  virtual_port:
    description: Port users reach the service on; defaults to the port of I(target).
    type: int
  clear_services:
    description: Hosts or addresses reached in clear; used only when the service is created.
    type: list
    elements: str
  api_key:
    description:
      - API key for creating the service. Handed to the tool through its environment
        (C(SYLVANE_API_KEY)), never on its command line. Keep it in Ansible Vault.
      - Needed only when the service does not exist yet.
    type: str
  api_key_file:
    description: Path on the managed host of a file holding the API key (mode 0600 or 0400).
    type: path
  state:
    description:
      - C(present) declares the service and leaves it enabled or disabled as it is;
        C(enabled) and C(disabled) also switch it on or off; C(absent) removes it.
    type: str
    choices: [present, absent, enabled, disabled]
    default: present
  wait:
    description: Seconds to wait for each add, enable or disable to settle (1-86400).
    type: int
  executable:
    description: Path of C(sylvane-service) on the managed host; by default it is looked up on C(PATH).
    type: path
notes:
  - Supports C(check_mode) (the plan is made, nothing is sent that changes the agent) and
    C(diff_mode) (the service's target, virtual port and enabled state before and after).
  - The Transfer Agent serves one client at a time; a busy or unreachable agent fails the task
    with C(error=busy) or C(error=unreachable).
requirements:
  - sylvane-service with --diff and --apply on the managed host
'''

EXAMPLES = r'''
- name: Publish the web server, enabled
  sylvane.transfer_agent.service:
    name: web
    target: 127.0.0.1:8080
    virtual_port: 80
    clear_services: [intranet.example]
    api_key: "{{ vault_sylvane_api_key }}"
    state: enabled

- name: Keep the backup service declared but switched off
  sylvane.transfer_agent.service:
    name: backup
    target: 127.0.0.1:2222
    api_key_file: /root/.sylvane-key
    state: disabled

- name: Remove an old service
  sylvane.transfer_agent.service:
    name: legacy
    state: absent
'''

RETURN = r'''
changes:
  description: The changes the tool planned for this service (its C(--diff --json) change objects).
  returned: unless I(state=absent)
  type: list
  elements: dict
  sample: [{"object": "service", "service": "web", "action": "create", "before": null,
            "after": {"target": "127.0.0.1:8080", "virtual_port": 80, "enabled": true}}]
steps:
  description: The steps the apply carried out (its C(--apply --json) step objects).
  returned: when something was applied, also on failure
  type: list
  elements: dict
  sample: [{"object": "service", "service": "web", "action": "create", "state": "done"}]
error:
  description: The tool's error code (C(refused), C(failed), C(timeout), C(unreachable), C(busy), C(bad_argument), ...).
  returned: failure
  type: str
  sample: refused
reason:
  description: The Transfer Agent's own reason for a refusal or a failure, when it sent one.
  returned: failure, when the agent gave a reason
  type: str
  sample: Invalid API key.
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sylvane.transfer_agent.plugins.module_utils import sylvane_service as tool


def desired_service(params):
    """The service's entry in a desired-state document."""
    entry = {'target': params['target']}
    if params['virtual_port'] is not None:
        entry['virtual_port'] = params['virtual_port']
    if params['clear_services'] is not None:
        entry['clear_services'] = params['clear_services']
    if params['state'] != 'present':
        entry['enabled'] = params['state'] == 'enabled'
    return entry


def declare(module):
    """present, enabled, disabled: plan a one-service document, apply it
    when it changes something."""
    name = module.params['name']
    entry = desired_service(module.params)
    data = tool.document(services={name: entry})
    changes, dummy = tool.plan(module, '-', data)
    ours = [c for c in tool.pending(changes) if c.get('service') == name]
    result = dict(changed=bool(ours), changes=ours)
    if module._diff:
        shown = {k: v for k, v in entry.items() if k in tool.STATE_FIELDS}
        result['diff'] = dict(before=tool.overlay(shown, ours, 'before') or {},
                              after=tool.overlay(shown, ours, 'after') or {})
    if ours and not module.check_mode:
        result['changed'], result['steps'], dummy = tool.apply(module, '-', data)
    module.exit_json(**result)


def listed_state(service):
    """A service of -l in the shape of a desired-state entry."""
    state = {'target': '%s:%s' % (service.get('ip_address'), service.get('port')),
             'virtual_port': service.get('virtual_port')}
    state['enabled'] = service.get('status') in ('connected', 'in progress')
    return state


def remove(module):
    """absent: remove the service when the agent lists it."""
    name = module.params['name']
    dummy, objects = tool.run(module, ['-l'])
    found = [s for s in objects[-1].get('services', []) if s.get('service') == name]
    result = dict(changed=bool(found))
    if module._diff:
        result['diff'] = dict(before=listed_state(found[0]) if found else {}, after={})
    if found and not module.check_mode:
        tool.run(module, ['-r', name])
    module.exit_json(**result)


def main():
    module = AnsibleModule(
        argument_spec=dict(
            name=dict(type='str', required=True),
            target=dict(type='str'),
            virtual_port=dict(type='int'),
            clear_services=dict(type='list', elements='str'),
            api_key=dict(type='str', no_log=True),
            api_key_file=dict(type='path'),
            state=dict(type='str', default='present',
                       choices=['present', 'absent', 'enabled', 'disabled']),
            wait=dict(type='int'),
            **tool.COMMON_ARGS
        ),
        mutually_exclusive=[('api_key', 'api_key_file')],
        required_if=[('state', 'present', ('target',)), ('state', 'enabled', ('target',)),
                     ('state', 'disabled', ('target',))],
        supports_check_mode=True,
    )
    if module.params['state'] == 'absent':
        remove(module)
    else:
        declare(module)


if __name__ == '__main__':
    main()
