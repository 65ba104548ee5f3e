# Makes the collection importable as ansible_collections.sylvane.transfer_agent
# when pytest runs from the source tree (ansible-test units lays it out so).
import os
import sys
import tempfile

root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
if os.path.basename(os.path.dirname(os.path.dirname(root))) != 'ansible_collections':
    top = tempfile.mkdtemp(prefix='sylvane-collection-')
    os.makedirs(os.path.join(top, 'ansible_collections', 'sylvane'))
    os.symlink(root, os.path.join(top, 'ansible_collections', 'sylvane', 'transfer_agent'))
    sys.path.insert(0, top)
