#pragma once

namespace kxbench {

/// An app.conf as applications have it, of ten elements.
constexpr auto kSampleConfiguration = R"(<?xml version="1.0" encoding="UTF-8"?>
<application>
  <resources>files/resources.xml</resources>
  <prompts>files/prompts.xml</prompts>
  <home_button>html/index.html</home_button>
  <card_ranges>files/cards.xml</card_ranges>
  <white_list signature="c2lnbmF0dXJl" signature_path="files/list.sig">files/list.xml</white_list>
  <desktop_item title="Pay" icon_path="html/pay.svg" icon_position="1">html/pay.html</desktop_item>
  <desktop_item title="Refund" icon_path="html/refund.svg" icon_position="2">html/refund.html</desktop_item>
  <config_page title="Settings">html/settings.html</config_page>
</application>
)";

} // namespace kxbench
