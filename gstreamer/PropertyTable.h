// The properties that an element keeps in its state beside `device` and `channel`, as a table:
// each row a boolean or an integer member, read at the element's start. Source and sink describe
// theirs in rows and share the install, set and get.
#pragma once

#include "ElementChannel.h"

#include <gst/gst.h>

#include <variant>

namespace kvpcie::gst {

template <typename State>
struct PropertyRow {
    guint id;
    const char* name;
    const char* nick;
    const char* blurb;
    std::variant<bool State::*, gint State::*> member;
    gint defaultValue;  // a boolean's is 0 or 1; integers run from 0 to G_MAXINT
};

template <typename State, typename Rows>
void InstallProperties(GObjectClass* klass, const Rows& rows) {
    for (const PropertyRow<State>& row : rows) {
        GParamSpec* param = std::holds_alternative<bool State::*>(row.member)
                               ? g_param_spec_boolean(row.name, row.nick, row.blurb,
                                                      row.defaultValue != 0, kReadAtStart)
                               : g_param_spec_int(row.name, row.nick, row.blurb, 0, G_MAXINT,
                                                  row.defaultValue, kReadAtStart);
        g_object_class_install_property(klass, row.id, param);
    }
}

// Under the element's object lock; false for an id that no row has.
template <typename State, typename Rows>
bool SetFromRow(const Rows& rows, State& state, guint id, const GValue* value) {
    for (const PropertyRow<State>& row : rows) {
        if (row.id != id) {
            continue;
        }
        if (const auto* flag = std::get_if<bool State::*>(&row.member)) {
            state.*(*flag) = g_value_get_boolean(value);
        } else {
            state.*std::get<gint State::*>(row.member) = g_value_get_int(value);
        }
        return true;
    }
    return false;
}

template <typename State, typename Rows>
bool GetFromRow(const Rows& rows, const State& state, guint id, GValue* value) {
    for (const PropertyRow<State>& row : rows) {
        if (row.id != id) {
            continue;
        }
        if (const auto* flag = std::get_if<bool State::*>(&row.member)) {
            g_value_set_boolean(value, state.*(*flag));
        } else {
            g_value_set_int(value, state.*std::get<gint State::*>(row.member));
        }
        return true;
    }
    return false;
}

}  // namespace kvpcie::gst
