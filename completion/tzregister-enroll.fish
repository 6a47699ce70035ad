# fish completion for tzregister-enroll(8)

# Whether an option may still be given.
function __tzregister_enroll_flag
    not contains -- --$argv[1] (commandline -opc)
end

# The same for one with a value; the last word may be the one whose value is asked for.
function __tzregister_enroll_value
    not contains -- --$argv[1] (commandline -opc | string replace -r '=.*' '')[1..-2]
end

complete -c tzregister-enroll -f
complete -c tzregister-enroll -n '__tzregister_enroll_flag help' -s h -l help -d 'Print the options'
complete -c tzregister-enroll -n '__tzregister_enroll_flag version' -l version -d 'Print the version'
complete -c tzregister-enroll -n '__tzregister_enroll_value url' -l url -x -d 'Address of the authority'
complete -c tzregister-enroll -n '__tzregister_enroll_value login' -l login -x -d 'Login of an administrator'
complete -c tzregister-enroll -n '__tzregister_enroll_value passwdfile' -l passwdfile -r -F -d 'File with the password'
complete -c tzregister-enroll -n '__tzregister_enroll_value hostname' -l hostname -x -d 'Name to register'
complete -c tzregister-enroll -n '__tzregister_enroll_value file' -l file -r -F -d 'Configuration file'
complete -c tzregister-enroll -n '__tzregister_enroll_value productname' -l productname -x -d 'Section of the registry'
complete -c tzregister-enroll -n '__tzregister_enroll_value keydir' -l keydir -x -a '(__fish_complete_directories)' -d 'Key directory'
complete -c tzregister-enroll -n '__tzregister_enroll_flag server' -l server -d 'Register a server agent'
complete -c tzregister-enroll -n '__tzregister_enroll_value storage' -l storage -x -a '(__fish_complete_directories)' -d 'Storage directory'
complete -c tzregister-enroll -n '__tzregister_enroll_flag mkdir' -l mkdir -d 'Create the directories that the configuration names'
complete -c tzregister-enroll -n '__tzregister_enroll_flag make-key' -l make-key -d 'Make the key file when it is missing'
complete -c tzregister-enroll -n '__tzregister_enroll_value storagepoolid' -l storagepoolid -x -d 'Pool to try the account with'
complete -c tzregister-enroll -n '__tzregister_enroll_flag force' -l force -d 'Renew an account that works'
complete -c tzregister-enroll -n '__tzregister_enroll_value attempts' -l attempts -x -d 'Tries of what can pass'
complete -c tzregister-enroll -n '__tzregister_enroll_value textfile' -l textfile -r -F -d 'Result for the node exporter, *.prom'
complete -c tzregister-enroll -n '__tzregister_enroll_flag cleartext' -l cleartext -d 'Allow http://'
