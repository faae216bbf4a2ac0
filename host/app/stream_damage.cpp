#include "host/app/stream_damage.h"

namespace tavro::host {

void StreamDamage::noteMessage(const std::string& message) {
  if (messages_++ == 0)
    firstMessage_ = message;
}

std::string StreamDamage::summary() const {
  std::string text = cutOff_ ? "the input is cut off" : "the input is damaged";
  if (unreadablePackets_ != 0)
    text += ", " + counted(unreadablePackets_, "packet") + " unreadable";
  if (damagedFrames_ != 0)
    text += ", " + counted(damagedFrames_, "frame") + " damaged";
  if (!firstMessage_.empty())
    text += " (" + firstMessage_ + ")";
  return text;
}

std::string counted(int64_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

}  // namespace tavro::host
