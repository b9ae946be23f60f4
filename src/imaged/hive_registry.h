// THiveRegistry: the registry of an offline Windows installation, read from its
// SOFTWARE and SYSTEM hive files, as the registry of the computer whose logs are read.
//
// "\SOFTWARE\…" keys are read from the SOFTWARE hive, "\SYSTEM\…" keys from the SYSTEM
// hive, where "CurrentControlSet" means "ControlSet001" (the hive's Select key is not
// consulted, as for imaged computers). Both hives stay open for the object's life; each
// read holds the hive lock, so the object may be shared between threads.
#pragma once

#include "descriptions/message_files.h"
#include "imaged/registry_direct.h"

#include <memory>
#include <string>

namespace qvx {

// Two hives already open (SOFTWARE and SYSTEM) as a registry, with THiveRegistry's key
// rules. Takes no lock: the caller holds HiveLock for the view's life. Each read moves the
// hives' current keys, and reads of one key in a row open it once: nothing else may move
// them while the view is used. The hives must outlive the view.
class THiveView : public TComputerRegistry {
public:
  THiveView(TRegistryDirect& ASoftware, TRegistryDirect& ASystem) : FSoftware(ASoftware), FSystem(ASystem) {}

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override;
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override;
  bool ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const override;
  bool ReadStringValues(const std::string& AKey,
                        std::vector<std::pair<std::string, std::string>>& AValues) const override;

private:
  // The hive that holds AKey, with AKey made its current key; null when missing.
  TRegistryDirect* Select(const std::string& AKey) const;
  TRegistryDirect& FSoftware;
  TRegistryDirect& FSystem;
  mutable std::string FLastKey;               // the key AKey last selected ...
  mutable TRegistryDirect* FLastHive = nullptr; // ... and its hive (null: none)
};

class THiveRegistry : public TComputerRegistry {
public:
  // Opens the hives of the Windows folder AWinDir (names matched without regard to
  // case). Raises EImagedPCException as activation of an imaged computer does.
  explicit THiveRegistry(const std::string& AWinDir);
  ~THiveRegistry() override;

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override;
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override;
  bool ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const override;
  bool ReadStringValues(const std::string& AKey,
                        std::vector<std::pair<std::string, std::string>>& AValues) const override;

private:
  std::unique_ptr<TRegistryDirect> FSoftware;
  std::unique_ptr<TRegistryDirect> FSystem;
  std::unique_ptr<THiveView> FView;
};

} // namespace qvx
