# fish completion for tzregister(8)

# The value that an option has on the line so far.
function __tzregister_given
    set -l words (commandline -opc | string split -m 1 =)
    set -l place (contains -i -- $argv[1] $words)
    and echo $words[(math $place + 1)]
end

function __tzregister_actions
    switch (__tzregister_given --type)
        case Agent
            printf '%s\n' register configfile routingtables certificate createds
        case ContentRouter StoragePoolAuthority
            echo configfile
        case storagepool
            echo discover
        case '*'
            printf '%s\n' discover register configfile routingtables certificate createds
    end
end

function __tzregister_types
    switch (__tzregister_given --action)
        case register routingtables certificate createds
            echo Agent
        case configfile
            printf '%s\n' Agent ContentRouter StoragePoolAuthority
        case discover
            echo storagepool
        case '*'
            printf '%s\n' Agent ContentRouter StoragePoolAuthority storagepool
    end
end

# Whether an option may still be given: each may be given once.
function __tzregister_flag
    not contains -- --$argv[1] (commandline -opc)
end

# The same for one with a value; the last word may be the one whose value is asked for.
function __tzregister_value
    not contains -- --$argv[1] (commandline -opc | string replace -r '=.*' '')[1..-2]
end

complete -c tzregister -f
complete -c tzregister -n '__tzregister_flag version' -s V -l version -d 'Do nothing'
complete -c tzregister -n '__tzregister_flag help' -s h -l help -d 'Print the options'
complete -c tzregister -n '__tzregister_value action' -l action -x -a '(__tzregister_actions)' -d 'What to do'
complete -c tzregister -n '__tzregister_value login' -l login -x -d 'Login with the authority'
complete -c tzregister -n '__tzregister_value passwd' -l passwd -x -d 'Password for it; better a file'
complete -c tzregister -n '__tzregister_value passwdfile' -l passwdfile -r -F -d 'File with the password'
complete -c tzregister -n '__tzregister_value url' -l url -x -d 'Address of the authority'
complete -c tzregister -n '__tzregister_value type' -l type -x -a '(__tzregister_types)' -d 'Component type'
complete -c tzregister -n '__tzregister_flag todisk' -l todisk -d 'Write the file instead of printing it'
complete -c tzregister -n '__tzregister_flag server' -l server -d 'Fetch the template of a server agent'
complete -c tzregister -n '__tzregister_flag mkdir' -l mkdir -d 'Create directories'
complete -c tzregister -n '__tzregister_value agentType' -l agentType -x -a '0\t"Quorvex agent" 1\t"KMT agent" 2\t"WRX agent" 3\t"JQ agent"' -d 'Type of agent'
complete -c tzregister -n '__tzregister_value keydir' -l keydir -x -a '(__fish_complete_directories)' -d 'Key directory'
complete -c tzregister -n '__tzregister_value agentid' -l agentid -x -d 'Id of the agent'
complete -c tzregister -n '__tzregister_value hostname' -l hostname -x -d 'Name to register'
complete -c tzregister -n '__tzregister_value file' -l file -r -F -d 'Output file'
complete -c tzregister -n '__tzregister_value file2' -l file2 -r -F -d 'Second output file'
complete -c tzregister -n '__tzregister_value configfile' -l configfile -r -F -d 'Configuration file'
complete -c tzregister -n '__tzregister_value dsname' -l dsname -x -d 'Name of the data selection'
complete -c tzregister -n '__tzregister_value dsrules' -l dsrules -x -d 'Rules of the data selection'
complete -c tzregister -n '__tzregister_value storage' -l storage -x -a '(__fish_complete_directories)' -d 'Storage directory'
complete -c tzregister -n '__tzregister_value productname' -l productname -x -d 'Section of the registry'
complete -c tzregister -n '__tzregister_value dstypeid' -l dstypeid -x -d 'Type of the data selection'
complete -c tzregister -n '__tzregister_value storagepoolid' -l storagepoolid -x -d 'Id of the storage pool'
