// The source lines that tracebacks show for the module-level statements and for the statements of
// the functions. The lines of the queries and of each `def` are in function_table.def. Lines ascend
// in the order of the functions, so a line also identifies its function.
#pragma once

namespace modules_util::source_line {

namespace init {
inline constexpr int module = 1;
inline constexpr int serial_number_ascii = 3, hexlify = 4, namedtuple = 5, get_logger = 6;
inline constexpr int urandom = 7, path = 8, compat = 9, lock = 10, json = 11;
inline constexpr int c_function_error = 12, copy = 13;
inline constexpr int logger = 17, invalid_index = 19, interface_count = 20, interface_lock = 21;
inline constexpr int charset = 23, counters = 25;
}  // namespace init

namespace new_cookie_id {
inline constexpr int result = 29;
}
namespace aps_unsigned_int_hash {
inline constexpr int result = 33;
}
namespace get_cookie_name {
inline constexpr int result = 37;
}
namespace encrypt_cookie {
inline constexpr int wrap = 41, bytes = 42;
}
namespace decrypt_cookie {
inline constexpr int length = 48, log = 51, no_memory = 52, bytes = 55;
}
namespace get_token {
inline constexpr int path = 62, is_file = 64, create = 65, write = 66;
inline constexpr int open = 68, read = 69, result = 71;
}
namespace check_cert_expiration {
inline constexpr int result = 75;
}

namespace interface_selection {
inline constexpr int entries = 138, name = 139, result = 143;
}

namespace get_cli_command_output {
inline constexpr int encode = 255, no_output = 260, decode = 261, replace = 262;
}

namespace get_bfd_neighbor {
inline constexpr int output = 269, peer = 270, objname = 272, prefix = 273;
inline constexpr int split = 274, session = 276, line = 283, header_again = 286;
inline constexpr int neighbor_ip = 293, interface = 294, session_name = 295, header_name = 296;
struct Timers {
    int create, split, store, keep;
};
inline constexpr Timers local_timers{298, 301, 302, 304}, remote_timers{307, 310, 311, 313};
inline constexpr int value = 317, field = 318, log = 320;
inline constexpr int known = 323, merge = 324, store = 326;
}  // namespace get_bfd_neighbor

namespace list_bfd_neighbor {
inline constexpr int holder = 331, info = 333, info6 = 334, merge = 335;
inline constexpr int keys = 338, each = 339, neighbor_ip = 340, interface = 341;
inline constexpr int detail = 342, detail6 = 343, merge_detail = 344, filter = 345, append = 346;
inline constexpr int log = 348;
}  // namespace list_bfd_neighbor

namespace capture_event {
inline constexpr int running = 365, stop = 367, pause = 369, erase = 371;
}

namespace get_routing_table_result {
inline constexpr int routing_table = 379, table = 380, output = 381, split = 382;
inline constexpr int header = 385, entry = 387, info = 388, distance = 389, metric = 390;
inline constexpr int last_update = 391, other = 392, route = 397, main = 400, address = 401;
inline constexpr int marker = 403, marked_address = 404, second_field = 405, interface = 406;
inline constexpr int second_word = 408, append = 409, result = 411;
}  // namespace get_routing_table_result

namespace get_system_arp_result {
inline constexpr int result = 416, output = 417, split = 418, header = 421;
inline constexpr int arp = 428, column = 429;  // the four columns on four lines
inline constexpr int joined = 434, append = 435;
}  // namespace get_system_arp_result

}  // namespace modules_util::source_line
