#pragma once

/*
 * The handlers of the command table. Each gets the arguments that begin with the command's own name, carries
 * the command out and returns the process's exit status.
 */
int cmd_backup(int argc, char** argv);
int cmd_clean(int argc, char** argv);
int cmd_firmware_compatibility(int argc, char** argv);
int cmd_import(int argc, char** argv);
int cmd_install(int argc, char** argv);
int cmd_json_validate(int argc, char** argv);
int cmd_list(int argc, char** argv);
int cmd_package_conf(int argc, char** argv);
int cmd_re_import(int argc, char** argv);
int cmd_remove(int argc, char** argv);
int cmd_restore(int argc, char** argv);
int cmd_setup(int argc, char** argv);
int cmd_start(int argc, char** argv);
int cmd_stop(int argc, char** argv);
int cmd_teardown(int argc, char** argv);
int cmd_uninstall(int argc, char** argv);
int cmd_validate_manifest(int argc, char** argv);
int cmd_verify_signature(int argc, char** argv);
int cmd_verify_user_group(int argc, char** argv);
