#!/bin/sh
# What a user could write with the system's tools alone: udevadm's event stream read line by line,
# starting `/usr/bin/open -a APP` when a USB device with the given ids is added.
#   udevadm_watcher.sh VENDOR PRODUCT APP     (ids as four hexadecimal digits)
vendor=$1 product=$2 app=$3
# udevadm declines to watch from inside a chroot unless told to go on.
SYSTEMD_IGNORE_CHROOT=1 udevadm monitor --udev --property --subsystem-match=usb/usb_device | while read -r line; do
    case $line in
    ACTION=*) action=${line#ACTION=} ;;
    PRODUCT=*) ids=${line#PRODUCT=} ;;
    "")
        [ "$action" = add ] && [ "${ids%/*}" = "$vendor/$product" ] && /usr/bin/open -a "$app"
        action="" ids=""
        ;;
    esac
done
