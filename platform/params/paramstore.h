// SPDX-License-Identifier: MIT
// vorta platform: the recorder's parameter service interface and two implementations.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Identifiers of the device parameters the library reads or writes.
enum eParam_t : uint32_t {
  eParamMediaBusy = 0x7B01030A,           // 1 while a media operation runs, 2 after
  eParamMediaDir = 0x7B01010A,            // text: the media directory
  eParamEncodeType = 0x0E01000A,          // the current encode type
  eParamPlaybackMode = 0x0F01000A,        // 2: play the current playlist
  eParamCurrentPlaylist = 0x0F03000A,     // text: name of the current playlist
  eParamClipNameSource = 0x0D01000A,      // 1, 2, 3: name from the camera's RED metadata
  eParamREDClipName = 0x7D04040A,         // text: the camera-supplied clip name
  eParamMasterClipName = 0x7D04010A,      // text: the master unit's clip name
  eParamClipNameScene = 0x1102000A,       // non-zero: "SC", else "Clip"
  eParamClipNameNumber = 0x1103000A,      // number after the prefix; 0 = none
  eParamClipNameLetterOn = 0x1104000A,    // non-zero: a letter follows the number
  eParamClipNameLetter = 0x1105000A,      // that letter, as a character code
  eParamTake = 0x1108000A,                // take of the standard name
  eParamCustomClipName = 0x1301000A,      // 1: a user-typed clip name is used
  eParamCustomClipNameText = 0x1302000A,  // text: the user-typed name
  eParamCustomTake = 0x1303000A,          // 1: a take is appended to the typed name
  eParamCustomTakeNumber = 0x1304000A,    // that take
  eParamLinkMode = 0x23040000,            // 1: linked to other units
  eParamLinkRole = 0x23050000,            // 0: this unit is the slave
  eParamLinkClipName = 0x1601000A,        // 0: a slave names clips after the master
};

/// What is known about one parameter: its console name, kind and default.
struct ParamInfo {
  eParam_t id;
  const char* name;  // e.g. "take", "media-dir"
  bool isText;
  uint32_t defaultValue;    // integer parameters
  const char* defaultText;  // text parameters
  const char* description;
};

/// Every parameter the library uses, in identifier order.
const std::vector<ParamInfo>& knownParams();
/// The parameter of that identifier, or null.
const ParamInfo* findParam(eParam_t id);
/// The parameter named name ("take"), or given by its identifier in
/// hexadecimal ("0x1108000A") or decimal; null when neither.
const ParamInfo* findParam(const std::string& nameOrNumber);

/// The recorder's parameter service. A parameter never set reads as its
/// default (0 or the empty text for parameters this library does not know).
class ParamStore {
 public:
  virtual ~ParamStore();
  /// Whether the parameter has a value (set, or known with a default).
  virtual bool hasParam(eParam_t id) = 0;
  /// Stores an integer parameter; 1 when stored, 0 when the store failed.
  virtual int setParam(eParam_t id, uint32_t value) = 0;
  /// An integer parameter (0 when it cannot be read).
  virtual uint32_t getParam(eParam_t id) = 0;
  /// Whether the parameter holds text.
  virtual bool isTextParam(eParam_t id) = 0;
  /// Reads an integer parameter into value; 1 when read, 0 (value untouched) when not.
  virtual int getParamValue(eParam_t id, uint32_t& value) = 0;
  /// Stores a text parameter; 1 when stored, 0 when the store failed.
  virtual int setParamString(eParam_t id, const std::string& text) = 0;
  /// Reads a text parameter into value; 1 when read, 0 (value untouched) when not.
  virtual int getParamString(eParam_t id, std::string& value) = 0;
};

/// Parameters held in this process's memory (for tests and programs).
class MemoryParamStore : public ParamStore {
 public:
  MemoryParamStore();
  ~MemoryParamStore() override;
  bool hasParam(eParam_t id) override;
  int setParam(eParam_t id, uint32_t value) override;
  uint32_t getParam(eParam_t id) override;
  bool isTextParam(eParam_t id) override;
  int getParamValue(eParam_t id, uint32_t& value) override;
  int setParamString(eParam_t id, const std::string& text) override;
  int getParamString(eParam_t id, std::string& value) override;

 private:
  std::map<uint32_t, uint32_t> values_;
  std::map<uint32_t, std::string> texts_;
};

/// Parameters kept in a small JSON file, so that separate processes share
/// them. Every read reads the file; every write resolves the path (symbolic
/// links followed, the directory made absolute: a link to the file stays a
/// link, and every spelling of one file shares one lock), takes a lock on
/// the resolved path + ".lock", removes the temporary files that writers
/// killed part-way left there, reads the file, changes one member and
/// replaces the file atomically (temporary file path + ".tmp." + pid,
/// fsync, rename; a write of media-busy, a status that is stale after a
/// power cut anyway, skips the fsync and its journal commit, which would
/// cost a scan more than the scan itself on a busy disk). A missing file
/// reads as all defaults; a file that is not
/// a JSON object is never overwritten. A write that fails says why on
/// standard error and leaves no temporary file.
class FileParamStore : public ParamStore {
 public:
  explicit FileParamStore(std::string path);
  ~FileParamStore() override;
  const std::string& path() const { return path_; }

  bool hasParam(eParam_t id) override;
  int setParam(eParam_t id, uint32_t value) override;
  uint32_t getParam(eParam_t id) override;
  bool isTextParam(eParam_t id) override;
  int getParamValue(eParam_t id, uint32_t& value) override;
  int setParamString(eParam_t id, const std::string& text) override;
  int getParamString(eParam_t id, std::string& value) override;

 private:
  std::string path_;
};
