# -*- coding: utf-8 -*-
# Copyright: 2026 sylvane-service maintainers. All rights reserved.

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: apply
short_description: Make the Sylvane Transfer Agent match a whole desired-state file
version_added: 0.1.0
description:
  - Makes the services and the proxy of the Transfer Agent on the managed host match a
    desired-state document, through C(sylvane-service --diff) and C(sylvane-service --apply)
    on that host.
  - The document is a file on the managed host (I(src)) or the same data given inline
    (I(services) and I(proxy)). To send a file from the controller, read it there, as in
    the examples.
  - Services the agent has and the document does not name are left alone, unless I(prune)
    removes them.
  - The document never holds API keys; the tool refuses one that does.
author: sylvane-service maintainers (@sylvane)
options:
  src:
    description: Path on the managed host of a desired-state file (YAML or JSON, C(version) 1).
    type: path
  services:
    description:
      - The services, by name, as in a desired-state file. Each has C(target) (C(IPV4:PORT)) and
        optionally C(virtual_port), C(clear_services) and C(enabled) (absent leaves it as it is).
      - An empty dictionary manages every service as absent when I(prune) is set.
    type: dict
  proxy:
    description: The proxy; left as it is when not given.
    type: dict
    suboptions:
      address:
        description: Address of the proxy, as C(IPV4:PORT).
        type: str
        required: true
      type:
        description: Kind of proxy.
        type: str
        choices: [HTTP, HTTPS, Socks5]
        required: true
      enabled:
        description: Whether the agent uses the proxy; left as it is when not given.
        type: bool
  prune:
    description: Remove the services the agent has and the document does not name.
    type: bool
    default: false
  api_key:
    description:
      - API key for the services that must be created, handed to the tool through its
        environment (C(SYLVANE_API_KEY)), never on its command line. Keep it in Ansible Vault.
    type: str
  api_key_file:
    description: Path on the managed host of a file holding the API key (mode 0600 or 0400).
    type: path
  wait:
    description: Seconds to wait for each add, enable or disable to settle (1-86400).
    type: int
  executable:
    description: Path of C(sylvane-service) on the managed host; by default it is looked up on C(PATH).
    type: path
notes:
  - Supports C(check_mode) (the plan is returned, nothing changes) and C(diff_mode)
    (each service and the proxy that would change, before and after).
  - The agent has no transactions; a step that fails stops the run, and running the task
    again converges. The failure lists the steps done (C(steps)) and those not tried
    (C(not_tried)).
requirements:
  - sylvane-service with --diff and --apply on the managed host
'''

EXAMPLES = r'''
- name: Apply the file that the role installed
  sylvane.transfer_agent.apply:
    src: /etc/sylvane/services.yml
    prune: true
    api_key: "{{ vault_sylvane_api_key }}"

- name: Declare every service of the host inline
  sylvane.transfer_agent.apply:
    services:
      web:
        target: 127.0.0.1:8080
        virtual_port: 80
        enabled: true
      backup:
        target: 127.0.0.1:2222
    proxy:
      address: 10.0.0.1:3128
      type: HTTP
      enabled: false
    api_key: "{{ vault_sylvane_api_key }}"

- name: Apply a file kept on the controller
  sylvane.transfer_agent.apply:
    services: "{{ (lookup('file', 'agent.yml') | from_yaml).services }}"
    api_key: "{{ vault_sylvane_api_key }}"
'''

RETURN = r'''
changes:
  description: Every change the tool planned, unchanged and not managed entries included.
  returned: always
  type: list
  elements: dict
summary:
  description: Counts of the plan (check mode, or nothing to do) or of the steps done.
  returned: always
  type: dict
  sample: {"create": 1, "update": 0, "enable": 1, "disable": 0, "remove": 0, "unchanged": 2, "not_managed": 0}
steps:
  description: The steps the apply carried out, in order.
  returned: when something was applied, also on failure
  type: list
  elements: dict
not_tried:
  description: The steps a failed run did not try.
  returned: failure of a step
  type: list
  elements: dict
error:
  description: The tool's error code on failure (C(bad_argument) for a bad file, C(refused), C(unreachable), ...).
  returned: failure
  type: str
reason:
  description: The Transfer Agent's own reason, when it sent one.
  returned: failure, when the agent gave a reason
  type: str
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sylvane.transfer_agent.plugins.module_utils import sylvane_service as tool


def source(params):
    """Where the tool reads the document: (argument, standard input)."""
    if params['src']:
        return params['src'], None
    proxy = params['proxy']
    if proxy is not None:
        proxy = {k: v for k, v in proxy.items() if v is not None}
    return '-', tool.document(services=params['services'], proxy=proxy)


def diff(changes):
    """before/after of every service and of the proxy that changes."""
    before, after = {'services': {}}, {'services': {}}
    for key in sorted(set((c.get('object'), c.get('service')) for c in changes)):
        ours = [c for c in changes if (c.get('object'), c.get('service')) == key]
        was, will = tool.overlay({}, ours, 'before'), tool.overlay({}, ours, 'after')
        if key[0] == 'proxy':
            before['proxy'], after['proxy'] = was, will
            continue
        if was is not None:
            before['services'][key[1]] = was
        if will is not None:
            after['services'][key[1]] = will
    return dict(before=before, after=after)


def main():
    module = AnsibleModule(
        argument_spec=dict(
            src=dict(type='path'),
            services=dict(type='dict'),
            proxy=dict(type='dict', options=dict(
                address=dict(type='str', required=True),
                type=dict(type='str', required=True, choices=['HTTP', 'HTTPS', 'Socks5']),
                enabled=dict(type='bool'),
            )),
            prune=dict(type='bool', default=False),
            api_key=dict(type='str', no_log=True),
            api_key_file=dict(type='path'),
            wait=dict(type='int'),
            **tool.COMMON_ARGS
        ),
        mutually_exclusive=[('src', 'services'), ('src', 'proxy'), ('api_key', 'api_key_file')],
        required_one_of=[('src', 'services', 'proxy')],
        supports_check_mode=True,
    )
    path, data = source(module.params)
    prune = module.params['prune']
    changes, summary = tool.plan(module, path, data, prune)
    todo = tool.pending(changes)
    result = dict(changed=bool(todo), changes=changes, summary=summary)
    if module._diff:
        result['diff'] = diff(todo)
    if todo and not module.check_mode:
        result['changed'], result['steps'], result['summary'] = tool.apply(module, path, data, prune)
    module.exit_json(**result)


if __name__ == '__main__':
    main()
