#pragma once

// What was wrong with an input that could be opened: kept while it is read, told in one line at
// the end.

#include <cstdint>
#include <string>

namespace tavro::host {

/// "1 frame", "2 frames".
inline std::string counted(int64_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

class StreamDamage {
 public:
  void noteUnreadablePacket() { ++unreadablePackets_; }
  void noteDamagedFrame() { ++damagedFrames_; }
  void noteCutOff() { cutOff_ = true; }
  /// A message of the decoder or demuxer; the first one is kept.
  void noteMessage(const std::string& message) {
    if (messages_++ == 0)
      firstMessage_ = message;
  }

  /// What explains all the rest.
  void noteUnsupported(const std::string& message) { unsupported_ = message; }

  bool any() const {
    return unreadablePackets_ != 0 || damagedFrames_ != 0 || cutOff_ || messages_ != 0 ||
           !unsupported_.empty();
  }

  /// For example "the input is cut off, 2 packets unreadable (partial file)".
  std::string summary() const {
    if (!unsupported_.empty())
      return unsupported_;
    std::string text = cutOff_ ? "the input is cut off" : "the input is damaged";
    if (unreadablePackets_ != 0)
      text += ", " + counted(unreadablePackets_, "packet") + " unreadable";
    if (damagedFrames_ != 0)
      text += ", " + counted(damagedFrames_, "frame") + " damaged";
    if (!firstMessage_.empty())
      text += " (" + firstMessage_ + ")";
    return text;
  }

 private:
  int64_t unreadablePackets_ = 0;
  int64_t damagedFrames_ = 0;
  int64_t messages_ = 0;
  bool cutOff_ = false;
  std::string firstMessage_;
  std::string unsupported_;
};

}  // namespace tavro::host
