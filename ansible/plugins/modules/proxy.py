# -*- coding: utf-8 -*-
# Copyright: 2026 sylvane-service maintainers. All rights reserved.

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: proxy
short_description: Set the outbound proxy of the Sylvane Transfer Agent
version_added: 0.1.0
description:
  - Makes the Transfer Agent's outbound proxy on the managed host match the task, through
    C(sylvane-service) on that host.
  - Hands a proxy-only desired-state document to C(sylvane-service --diff -) and, when something
    differs and not in check mode, to C(sylvane-service --apply -). Services are left alone.
author: sylvane-service maintainers (@sylvane)
options:
  address:
    description: Address of the proxy, as C(IPV4:PORT).
    type: str
    required: true
  type:
    description: Kind of proxy; compared with the agent's case-insensitively.
    type: str
    choices: [HTTP, HTTPS, Socks5]
    required: true
  state:
    description: Whether the agent uses the proxy.
    type: str
    choices: [enabled, disabled]
    default: enabled
  executable:
    description: Path of C(sylvane-service) on the managed host; by default it is looked up on C(PATH).
    type: path
notes:
  - Supports C(check_mode) and C(diff_mode) (address, type and enabled state before and after).
requirements:
  - sylvane-service with --diff and --apply on the managed host
'''

EXAMPLES = r'''
- name: Send the agent's traffic through the site proxy
  sylvane.transfer_agent.proxy:
    address: 10.0.0.1:3128
    type: HTTP

- name: Keep the proxy configured but unused
  sylvane.transfer_agent.proxy:
    address: 10.0.0.1:3128
    type: HTTP
    state: disabled
'''

RETURN = r'''
changes:
  description: The changes the tool planned for the proxy (its C(--diff --json) change objects).
  returned: always
  type: list
  elements: dict
  sample: [{"object": "proxy", "action": "update", "before": {"address": "0.0.0.0:0", "type": "HTTP", "enabled": false},
            "after": {"address": "10.0.0.1:3128", "type": "HTTP", "enabled": true}}]
steps:
  description: The steps the apply carried out.
  returned: when something was applied, also on failure
  type: list
  elements: dict
error:
  description: The tool's error code on failure (C(refused), C(unreachable), C(busy), ...).
  returned: failure
  type: str
reason:
  description: The Transfer Agent's own reason, when it sent one.
  returned: failure, when the agent gave a reason
  type: str
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sylvane.transfer_agent.plugins.module_utils import sylvane_service as tool


def main():
    module = AnsibleModule(
        argument_spec=dict(
            address=dict(type='str', required=True),
            type=dict(type='str', required=True, choices=['HTTP', 'HTTPS', 'Socks5']),
            state=dict(type='str', default='enabled', choices=['enabled', 'disabled']),
            **tool.COMMON_ARGS
        ),
        supports_check_mode=True,
    )
    wanted = dict(address=module.params['address'], type=module.params['type'],
                  enabled=module.params['state'] == 'enabled')
    data = tool.document(proxy=wanted)
    changes, dummy = tool.plan(module, '-', data)
    ours = [c for c in tool.pending(changes) if c.get('object') == 'proxy']
    result = dict(changed=bool(ours), changes=ours)
    if module._diff:
        result['diff'] = dict(before=tool.overlay(wanted, ours, 'before'),
                              after=tool.overlay(wanted, ours, 'after'))
    if ours and not module.check_mode:
        result['changed'], result['steps'], dummy = tool.apply(module, '-', data)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
