"""What goes over the line to and from a flash programmer, byte for byte, and what its failures read like."""
from packages import ONE_IMAGE_IN_FLASH

ACK = b'<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<response value="ACK" />\n</data>'
NAK = b'<?xml version="1.0" encoding="UTF-8" ?>\n<data>\n<response value="NAK" />\n</data>'
TARGET_RESET = b'<data><log value="bsp_target_reset"/></data>'

NOP = b'<?xml version="1.0"?>\n<data>\n<nop value="ping"/>\n</data>\n'
CONFIGURE = (b'<?xml version="1.0"?>\n<data>\n<configure MaxPayloadSizeToTargetInBytes="1048576" MemoryName="nand" />'
             b'\n</data>\n')
ERASE_REQUEST = (b'<?xml version="1.0"?>\n<data>\n<erase PAGES_PER_BLOCK="64" SECTOR_SIZE_IN_BYTES="4096" '
                 b'num_partition_sectors="64" start_sector="0" />\n</data>\n')
PROGRAM_REQUEST = (b'<?xml version="1.0"?>\n<data>\n<program SECTOR_SIZE_IN_BYTES="4096" label="one" '
                   b'filename="one.bin" num_partition_sectors="3" start_sector="0" />\n</data>\n')
OTP_REQUEST = b'<?xml version="1.0"?>\n<data>\n<getstorageinfo  physical_partition_number="0"/>\n</data>\n'
RESET = b'<?xml version="1.0"?>\n<data>\n<power value="reset" DelayInSeconds="3"/>\n</data>\n'

# All that the package of one image makes the updater send.
ONE_IMAGE_SENT = NOP + CONFIGURE + ERASE_REQUEST + PROGRAM_REQUEST + ONE_IMAGE_IN_FLASH + RESET

NAK_TEXT = NAK.decode() + '\n'
NO_ACK = 'error sending reading ack/nack 4294967194\n'       # -102
HUNG_UP = 'error sending reset 4294967171\nerror in sending reset\n'  # -125
NOP_FAILED = NO_ACK + 'error in nop handshake\n'
CONFIG_FAILED = 'error in config\n'
COMMAND_FAILED = NO_ACK + 'error for command\nerror sending commands -102\n'


def binary_failed(path, code=-102):
    return f'error in sending binary {path}\nerror sending commands {code}\n'
