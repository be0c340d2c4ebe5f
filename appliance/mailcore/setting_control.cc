#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

// The columns of general_setting, in the order of the record.
constexpr char kColumns[] =
    "conversations_per_page, display_external_image, mark_as_read_time, enable_signature, "
    "update_interval_time, split_pane_mode, preview_layout, theme, composer_fontname, "
    "composer_fontsize, composer_forecolor, codepage";

}  // namespace

SettingControl::SettingControl(Controller& controller) : controller_(controller) {}

record::GeneralConfig SettingControl::GetGeneralSetting() {
  Database& db = controller_.impl().db();
  return store::Guard("reading the general settings", [&] {
    Statement row(db, (std::string("SELECT ") + kColumns + " FROM general_setting").c_str());
    record::GeneralConfig config;
    if (!row.Step()) return config;
    config.conversations_per_page = row.Int(0);
    config.display_external_image = row.Int(1) != 0;
    config.mark_as_read_time = row.Int(2);
    config.enable_signature = row.Int(3) != 0;
    config.update_interval_time = row.Int(4);
    config.split_pane_mode = row.Int(5);
    config.preview_layout = row.Int(6);
    config.theme = row.Int(7);
    config.composer_fontname = row.Text(8);
    config.composer_fontsize = row.Text(9);
    config.composer_forecolor = row.Text(10);
    config.codepage = row.Text(11);
    return config;
  });
}

// The web API checks what the user may choose; the core refuses only what
// no choice could mean: a page of no conversations, negative times.
bool SettingControl::SetGeneralSetting(const GeneralConfig& config) {
  auto negative = [](const ConfigField<int32_t>& field) {
    return field.IsSet() && field.Get() < 0;
  };
  if ((config.conversations_per_page.IsSet() && config.conversations_per_page.Get() <= 0) ||
      negative(config.mark_as_read_time) || negative(config.update_interval_time)) {
    return false;
  }
  Database& db = controller_.impl().db();
  return store::Guard("changing the general settings", [&] {
    store::Transaction transaction(db);
    // A value that is not set stays (?N IS NULL keeps the column).
    Statement update(db,
                     "UPDATE general_setting SET"
                     " conversations_per_page = ifnull(?1, conversations_per_page),"
                     " display_external_image = ifnull(?2, display_external_image),"
                     " mark_as_read_time = ifnull(?3, mark_as_read_time),"
                     " enable_signature = ifnull(?4, enable_signature),"
                     " update_interval_time = ifnull(?5, update_interval_time),"
                     " split_pane_mode = ifnull(?6, split_pane_mode),"
                     " preview_layout = ifnull(?7, preview_layout),"
                     " theme = ifnull(?8, theme),"
                     " composer_fontname = ifnull(?9, composer_fontname),"
                     " composer_fontsize = ifnull(?10, composer_fontsize),"
                     " composer_forecolor = ifnull(?11, composer_forecolor),"
                     " codepage = ifnull(?12, codepage)");
    auto bind = [&](int index, const auto& field) {
      if (field.IsSet()) update.Bind(index, field.Get());
    };
    bind(1, config.conversations_per_page);
    bind(2, config.display_external_image);
    bind(3, config.mark_as_read_time);
    bind(4, config.enable_signature);
    bind(5, config.update_interval_time);
    bind(6, config.split_pane_mode);
    bind(7, config.preview_layout);
    bind(8, config.theme);
    bind(9, config.composer_fontname);
    bind(10, config.composer_fontsize);
    bind(11, config.composer_forecolor);
    bind(12, config.codepage);
    update.Run();
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
