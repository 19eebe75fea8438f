#!/bin/sh
# Runs once, as the application's own user, when the application has been set up.
echo "set up for $(id -un)" >localdata/installed
