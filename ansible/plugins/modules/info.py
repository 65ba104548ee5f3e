# -*- coding: utf-8 -*-
# Copyright: 2026 sylvane-service maintainers. All rights reserved.

from __future__ import absolute_import, division, print_function
__metaclass__ = type

DOCUMENTATION = r'''
---
module: info
short_description: Read the services and the proxy of the Sylvane Transfer Agent
version_added: 0.1.0
description:
  - Returns the services (C(sylvane-service -l)) and the proxy (C(sylvane-service -g)) of the
    Transfer Agent on the managed host, for C(register) and conditions. Changes nothing.
author: sylvane-service maintainers (@sylvane)
options:
  executable:
    description: Path of C(sylvane-service) on the managed host; by default it is looked up on C(PATH).
    type: path
notes:
  - Supports C(check_mode); it changes nothing in any mode.
requirements:
  - sylvane-service on the managed host
'''

EXAMPLES = r'''
- name: Read the agent
  sylvane.transfer_agent.info:
  register: agent

- name: Show the onion address of the web service
  ansible.builtin.debug:
    msg: "{{ agent.services.web.onion_address }}"
  when: "'web' in agent.services"

- name: Fail when a service is in error
  ansible.builtin.assert:
    that: agent.services | dict2items | selectattr('value.status', 'equalto', 'error') | list | length == 0
'''

RETURN = r'''
services:
  description:
    - The agent's services by name, with the fields the agent sent (C(service), C(uuid), C(status),
      C(ip_address), C(port), C(virtual_port), C(onion_address)).
    - C(status) is the agent's word (C(connected), C(in progress), C(disconnected), C(error), ...).
  returned: success
  type: dict
  sample: {"web": {"service": "web", "uuid": "0f8f...", "status": "connected", "ip_address": "127.0.0.1",
           "port": 8080, "virtual_port": 80, "onion_address": "abc.onion"}}
proxy:
  description: The agent's proxy (C(type), C(ip_address), C(port), C(enabled)).
  returned: success
  type: dict
  sample: {"type": "HTTP", "ip_address": "10.0.0.1", "port": 3128, "enabled": false}
'''

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sylvane.transfer_agent.plugins.module_utils import sylvane_service as tool


def main():
    module = AnsibleModule(argument_spec=dict(tool.COMMON_ARGS), supports_check_mode=True)
    dummy, listing = tool.run(module, ['-l'])
    dummy, proxy = tool.run(module, ['-g'])
    services = dict((s.get('service'), s) for s in listing[-1].get('services', []))
    module.exit_json(changed=False, services=services, proxy=proxy[-1].get('proxy', {}))


if __name__ == '__main__':
    main()
