dnl What the platform's policy gives to the files of android/sepolicy, cut down to what checkmodule
dnl needs: every name they may use, and macros that say the same in plain rules.
module kvox 1.0;
require {
  class capability { sys_nice };
  class capability2 { block_suspend };
  class process { fork transition };
  class binder { call transfer };
  class service_manager { add find };
  class dir { getattr open read search watch watch_reads write add_name remove_name ioctl lock mounton relabelfrom relabelto };
  class file { getattr open read write append create unlink rename setattr execute entrypoint map ioctl lock };
  class chr_file { getattr open read write append map ioctl lock };
  role object_r;
  attribute domain, dev_type, file_type, data_file_type, exec_type, vendor_file_type;
  attribute service_manager_type, hal_service_type, protected_service;
  attribute halserverdomain, halclientdomain;
  type device, vendor_data_file, tmpfs, init, servicemanager, su, sysfs_wake_lock;
}
define(`global_capability_class_set', `capability')
define(`r_dir_perms', `{ open getattr read search ioctl lock watch watch_reads }')
define(`rw_dir_perms', `{ open getattr read search ioctl lock watch watch_reads write add_name remove_name }')
define(`r_file_perms', `{ getattr open read ioctl lock map }')
define(`w_file_perms', `{ open append write lock map }')
define(`rw_file_perms', `{ getattr open read write append ioctl lock map }')
define(`create_file_perms', `{ create rename setattr unlink getattr open read write append ioctl lock map }')
define(`userdebug_or_eng', `$1')
define(`hal_attribute', `attribute hal_$1; attribute hal_$1_client; attribute hal_$1_server;')
define(`hal_server_domain', `typeattribute $1 halserverdomain, $2_server, $2;')
define(`hal_client_domain', `typeattribute $1 halclientdomain, $2_client;')
define(`hal_attribute_service', `allow $1_client $2:service_manager find; allow $1_server $2:service_manager { add find };')
define(`init_daemon_domain', `allow init $1_exec:file { getattr open read execute map }; allow init $1:process transition; allow $1 $1_exec:file entrypoint;')
define(`binder_use', `allow $1 servicemanager:binder { call transfer };')
define(`binder_call', `allow $1 $2:binder { call transfer };')
define(`wakelock_use', `allow $1 sysfs_wake_lock:file rw_file_perms; allow $1 self:capability2 block_suspend;')
