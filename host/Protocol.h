#pragma once

#include <cstddef>

// The control socket: a stream socket, one JSON object a line in each direction. A client sends requests, as
// many as it likes ahead; each is answered in turn by any number of {"text": "..."} lines, whose texts joined
// are the content, and one last line,
//
//   {"ok": true, ...}   or   {"ok": false, "error": "<one line that says what to do>"}
//
//   request                                            answer
//   {"cmd": "paths"}                                   "paths": the list of paths
//   {"cmd": "show", "path": P}                         text: the entity or table as JSON
//   {"cmd": "set", "path": P, "value": JSON}
//   {"cmd": "apply", "state": {P: JSON, ...}}          all or nothing
//   {"cmd": "remote", "op": "add", "bindings": LINES}  "changed": how many; all of the chunk or nothing
//   {"cmd": "remote", "op": "del", "bindings": LINES}  "changed": how many there were
//   {"cmd": "remote", "op": "clear"}                   "changed": how many there were
//   {"cmd": "agent", "command": C, "args": [...]}      text: what the plug-in that has this command writes
//   {"cmd": "reload"}                                  text: what is wrong with the configuration file, a line
//                                                      each
//   {"cmd": "monitor", "paths": [P, ...]}              text: changes, as in host/Monitor.h, until the client
//                                                      goes; without paths those of all
//
// LINES is one string of lines as in host/Bindings.h, "\n" between them. Bulk input is sent as chunks of
// kChunkBindings, of which a client keeps at most kWindowChunks unanswered. "set", "apply", "remote"
// and "reload" are for root; everything else is for whoever may open the socket.

namespace Host {

inline constexpr const char* kControlSocket = "control";  // in the run directory

inline constexpr std::size_t kChunkBindings = 512;
inline constexpr std::size_t kWindowChunks = 16;

// The longest request line, without its newline: of root, and of everybody else.
inline constexpr std::size_t kMaxWriterLine = std::size_t{1} << 20;
inline constexpr std::size_t kMaxReaderLine = std::size_t{64} << 10;

}  // namespace Host
