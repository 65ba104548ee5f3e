# fish completion for sylvane-service(1)

# The long-only commands are read from the first argument alone.
function __sylvane_service_first_argument
    test (count (commandline -opc)) -eq 1
end

function __sylvane_service_traceability_word --argument-names position target
    set -l words (commandline -opc)
    test "$words[2]" = --saveTraceabilityConfig
    and test (count $words) -eq $position
    and test -z "$target" -o "$words[3]" = "$target"
end

complete -c sylvane-service -f
complete -c sylvane-service -s h -l help -d 'Print the usage text'
complete -c sylvane-service -s l -l list -d 'List the declared services'
complete -c sylvane-service -s g -l getProxy -d 'Print the proxy configuration'
# Names, addresses, ports and keys get no candidates: asking the Transfer
# Agent for names could take its only client slot.
complete -c sylvane-service -s a -l add -x -d 'Declare a new service'
complete -c sylvane-service -s e -l edit -x -d 'Give a service a new address and port'
complete -c sylvane-service -s r -l remove -x -d 'Remove a service'
complete -c sylvane-service -s s -l enable -x -d 'Enable a service'
complete -c sylvane-service -s d -l disable -x -d 'Disable a service'
complete -c sylvane-service -s p -l ptr -x -d 'Address and port of the target service'
complete -c sylvane-service -s f -l forwarding -x -d 'User access port'
complete -c sylvane-service -s k -l key -x -d 'API key (visible to other users)'
complete -c sylvane-service -s u -l url -x -d 'Comma-separated clear services'
complete -c sylvane-service -s c -l configProxy -x -d 'Proxy address and port'
complete -c sylvane-service -s t -l proxyType -x -a 'HTTP HTTPS Socks5' -d 'Proxy type'
complete -c sylvane-service -l api-key-file -r -F -d 'Read the API key from a file (- for stdin)'
complete -c sylvane-service -l agent-uid -x -d "Uid allowed to own the agent's socket"
complete -c sylvane-service -l json -d 'Print JSON documents for scripts'
complete -c sylvane-service -l version -d 'Print the version'
complete -c sylvane-service -l events -d 'Print service state changes as they happen'
complete -c sylvane-service -l wait -x -d 'Seconds to wait for the outcome'
complete -c sylvane-service -l no-wait -d 'End once the request is acknowledged'
complete -c sylvane-service -l check -d 'Check that the Transfer Agent answers'
complete -c sylvane-service -l verbose -d 'Trace the conversation on standard error'
complete -c sylvane-service -l metrics -d 'Print the state in Prometheus text format'
complete -c sylvane-service -l metrics-file -r -F -d 'Write the state in Prometheus text format to a file'
complete -c sylvane-service -l diff -r -F -d 'Show what applying a desired-state file would change'
complete -c sylvane-service -l apply -r -F -d 'Make the agent match a desired-state file'
complete -c sylvane-service -l export -d "Print the agent's services as a desired-state file"
complete -c sylvane-service -l prune -d 'Remove services the file does not name'
complete -c sylvane-service -l dry-run -d 'With --apply: only show the plan'
complete -c sylvane-service -n __sylvane_service_first_argument -l enableProxy -d 'Switch the saved proxy on'
complete -c sylvane-service -n __sylvane_service_first_argument -l disableProxy -d 'Switch the saved proxy off'
complete -c sylvane-service -n __sylvane_service_first_argument -l enableAuthenticationAudit -d 'Switch the authentication audit on'
complete -c sylvane-service -n __sylvane_service_first_argument -l disableAuthenticationAudit -d 'Switch the authentication audit off'
complete -c sylvane-service -n __sylvane_service_first_argument -l saveTraceabilityConfig -x -d 'Set where tracking logs go'
complete -c sylvane-service -n '__sylvane_service_traceability_word 2 ""' -x -a 'console file syslog'
complete -c sylvane-service -n '__sylvane_service_traceability_word 3 file' -x -a '(__fish_complete_directories)'
complete -c sylvane-service -n '__sylvane_service_traceability_word 5 syslog' -x -a 'UDP TCP'
