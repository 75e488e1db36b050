// The settings of an engine as the tests compare them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "player/ControlPanel/Common/SMConfigFileManager.h"

/// Keys and values in list order.
using Settings = std::vector<std::pair<std::string, std::string>>;

inline Settings SettingsOf(SASM::ConfigFileManager const& manager) {
  Settings settings;
  SASM::MultiMap const& map = manager.mSettings;
  for (SASM::MultiMapPair const* pair = map.mFirst; pair != map.mEnd; pair = pair->next) {
    settings.emplace_back(pair->key.mString, pair->value.mString);
  }
  return settings;
}
