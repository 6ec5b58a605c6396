"""The whole help text, as the program prints it at the end of every refused command line."""
HELP = '''usage examples:
        kestrel --help
        kestrel <firmware directory> [--debug]
        kestrel --flat <programmer path> [--debug]
        kestrel --meta <content xml path> [--debug]
        kestrel <firmware directory> --port /dev/ttyUSB0
        kestrel <firmware directory> --dry-run
        kestrel <firmware directory> --enter-qdl
        kestrel <firmware directory> --otp

options:
   --port     <value> : force the tool to use a specific port instead of the automatic detection - optional
   --meta     <value> : contents.xml path - optional
   --flat     <value> : programmer path - optional
   --debug            : enable debug logging - optional
   --enter-qdl        : enter QDL mode and stop - optional
   --otp              : get OTP values - optional
   --skip-enter-qdl   : skip command to enter QDL mode (to be used with --port flag) - optional
   --pcie             : firmware upgrade through pcie - optional
   --force            : force flashing - optional
   --dry-run          : perform modem detection and firmware package validation, then stop - optional
   --json             : log in JSON format - optional
\rOmbra version 2.0.2-0

Supported modem families: KA100, KA110, KB200, KB210, KC300

Supported compositions:
0xfff0:0x1001,
0xfff0:0x1002,
0xfff0:0x1003,
0xfff0:0x1004,
0xfff0:0x1005,
0xfff0:0x1006,
0xfff0:0x1007,
0xfff0:0x1010,
0xfff0:0x1011,
0xfff0:0x1012,
0xfff0:0x1013,
0xfff0:0x1014,
0xfff0:0x1020,
0xfff0:0x1021,
0xfff0:0x1022,
0xfff1:0x2001,
0xfff1:0x2002,
0xfff1:0x2003,
0xfff1:0x2004,
0xfff1:0x2010,
0xfff1:0x2011,
0xfff1:0x2012,
0xfff1:0x2020,
0xfff1:0x2021,
0xfff1:0x2022,
0x17cb:0x011a,
0x17cb:0x0309,
0xfff0:0x1f01,
0xfff1:0x2f01,
0x05c6:0x9008
'''
