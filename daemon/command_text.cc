#include "daemon/command_text.h"

#include "kvox/common/device_names.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"

namespace kvox {
namespace {

std::string BufferText(const char* prefix, uint8_t id) {
  return id == kNoBuffer ? " none" : " " + (prefix + std::to_string(id));
}

template <typename Record>
const Record& As(const CMD_HDR& header) {
  return reinterpret_cast<const Record&>(header);
}

}  // namespace

CommandText::CommandText(uint16_t opcode, const CMD_HDR& record) {
  const auto name = [&](uint32_t id, uint8_t index) {
    tap = ToString(static_cast<FourCc>(id)) + "." + std::to_string(index);
  };
  const auto setting = [&](const char* what) {
    const auto& command = As<TapSettingRecord>(record);
    name(command.address.tap, command.address.index);
    action = what + std::to_string(command.value);
  };
  switch (opcode) {
    case CMD_KVOX_TAP_ENABLE_ID: {
      const auto& command = As<TapEnableRecord>(record);
      name(command.address.tap, command.address.index);
      action = command.enable != 0 ? "enable" : "disable";
      break;
    }
    case CMD_KVOX_TAP_BIND_ID: {
      const auto& command = As<TapBindRecord>(record);
      name(command.address.tap, command.address.index);
      action = "bind" + BufferText(kTapOutBufferPrefix, command.tapout_buffer) +
               BufferText(kInjectBufferPrefix, command.inject_buffer);
      break;
    }
    case CMD_KVOX_TAP_SET_BLOCK_LEN_ID:
      setting("block length ");
      break;
    case CMD_KVOX_TAP_SET_JITTER_BUFFER_ID:
      setting("jitter buffer ");
      break;
    default:
      action = FormatText<32>("opcode 0x%x", opcode);
  }
}

}  // namespace kvox
