source "$(dirname "$0")/lib.sh"

LIST_LINE="Unknown: <date>: USBLauncher:111(Trace): -[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_MatchingDictionaries]: $APP/Launcher.app/../Contents/Resources/NetworkBlocker.xml ->"

scenario "two known modems present at start launch the application once" --log
plug 12d1 1001
plug 19d2 2000
launch --as root --background
wait_for_call /usr/bin/open -a "$APP"
wait_until_serving
stop_launcher
expect_calls 1 /usr/bin/open -a "$APP"
expect_line "$(main_log)" 'Unknown: <date>: Launch:80(Trace): LaunchMyApplication: /usr/bin/open -a "/Applications/Quorvik Connect.app"'
expect_line "$(main_log)" "$LIST_LINE (null)"

scenario "only a known modem plugged in later launches the application, for the user, and its removal nothing more" --log
record_env HOME USER LANG DISPLAY SHELLOPTS GTK_MODULES TZ LANGUAGE
plug 1234 5678
launch --as root --background --unset HOME --env HOME=/root --env LANG=de_DE.UTF-8 --env DISPLAY=:5 \
    --env SHELLOPTS=xtrace --env GTK_MODULES=/tmp/evil.so --env TZ=../../tmp/zone --env LANGUAGE=../../../tmp/catalog \
    -- --uid "$USER_ID"
wait_until_serving
plug 0af0 6971
wait_for_call /usr/bin/open -a "$APP"
unplug "$PLUGGED"
wait_until_serving
stop_launcher
expect_calls 1 --where "uid=$USER_ID HOME=$USER_HOME USER=$USER_NAME LANG=de_DE.UTF-8 DISPLAY=:5" /usr/bin/open -a "$APP"
expect_calls 1 /usr/bin/open -a "$APP"
for name in SHELLOPTS GTK_MODULES TZ LANGUAGE; do expect_no_line /.e2e/journal " $name="; done
expect_line "$(main_log)" \
    "Unknown: <date>: USBLauncher:212(Trace): -[QVK_Framework_Port_Module_USBLauncher QVK_Framework_PortModule_Publish:]: Vendor 0x0af0 Product 0x6971"
expect_no_line "$(main_log)" "Vendor 0x1234"

scenario "a modem named only in the package's device list launches the application" --log
put "$APP/Contents/Resources/NetworkBlocker.xml" <<'XML'
<plist version="1.0"><array><dict><key>USB</key><dict><key>Vendor</key><string>0x1e0e</string><key>Product</key><array><string>0x9001</string><string>36866</string></array></dict></dict></array></plist>
XML
plug 1e0e 9002
launch --as root --background
wait_for_call /usr/bin/open -a "$APP"
stop_launcher
expect_line "$(main_log)" "$LIST_LINE (\n        {\n        USB =         {\n            Product =             (\n                0x9001,\n                36866\n            );\n            Vendor = 0x1e0e;\n        };\n    }\n)"

scenario "a no-launch marker made while it runs ends the Launcher at the next modem"
launch --as root --background
wait_until_serving
marker "$USER_HOME/.Quorvik-NoLaunch-Brisel"
plug 12d1 1001
e2e_wait_end 10
expect_status 0
expect_no_call /usr/bin/open
