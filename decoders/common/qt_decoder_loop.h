// The part every QuickTime channel decoder program shares: the command line, the named objects,
// and the loop that waits for a request, serves it and answers, until the host says stop or is
// gone. A program supplies only how one request is served.
#pragma once

#include <cstdint>
#include <string>

namespace vx::qt::decoder {

// Serves the request in the instruction block and returns the status for the result block;
// everything else of the answer is written into `res` (kResultBytes long).
using ServeFn = std::int32_t (*)(unsigned char* ins, unsigned char* res);

// "INSTRUCTION RESULT START END TERMINATE HOSTPID"; returns the program's exit code.
int Run(int argc, char** argv, ServeFn serve);

// Waits for the terminate event or the host's end, then exits (a decoder told to hang).
[[noreturn]] void HangUntilTold();

// A UTF-16 text at `offset` of the instruction block, NUL-terminated within the payload of
// `count` bytes, as UTF-8. False when it is not terminated inside the payload.
bool ReadText(const unsigned char* ins, std::uint32_t offset, std::uint32_t count,
              std::string* out);

}  // namespace vx::qt::decoder
