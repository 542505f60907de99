dnl Stands in for the platform's policy: the macros, types and classes that ours leans on, so that a
dnl policy compiler can read it. What the macros grant is left out but for what needs a type of ours, and
dnl of the capabilities those that the platform's neverallow rules keep from us.
define(`init_daemon_domain', `allow init $1_exec:file { read execute }; allow $1 $1_exec:file { read execute entrypoint };')
define(`binder_use', `allow $1 servicemanager:binder { call transfer };')
define(`binder_call', `allow $1 $2:binder { call transfer };')
define(`add_service', `allow $1 $2:service_manager { add find };')
define(`set_prop', `allow $1 $2:property_service set; allow $1 $2:file { read open };')
define(`get_prop', `allow $1 $2:file { read open };')
define(`system_internal_prop', `type $1, property_type;')
define(`r_file_perms', `{ getattr open read ioctl lock map }')
define(`create_file_perms', `{ create rename setattr unlink append getattr open read write ioctl lock map }')
define(`r_dir_perms', `{ open getattr read search ioctl lock }')
define(`rw_dir_perms', `{ open getattr read search ioctl lock add_name remove_name write }')
define(`create_dir_perms', `{ create reparent rename rmdir setattr open getattr read search ioctl lock add_name remove_name write }')
module rux 1.0;
require {
    class file { create rename setattr unlink append getattr open read write ioctl lock map link relabelfrom relabelto execute entrypoint };
    class dir { create reparent rename rmdir setattr open getattr read search ioctl lock add_name remove_name write };
    class capability { chown fowner fsetid lease };
    class binder { call transfer };
    class service_manager { add find };
    class property_service set;
    type init, servicemanager, system_server, media_rw_data_file;
    attribute domain, coredomain, exec_type, file_type, system_file_type, data_file_type;
    attribute core_data_file_type, service_manager_type, property_type;
}
