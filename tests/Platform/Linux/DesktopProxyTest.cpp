#include "VerdoDriver/Platform/DesktopProxy.h"
#include "tests/Support/ScopedEnv.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

namespace verdo::test {
namespace {

/// What the desktop answers with; null: an error.
const char* answer = nullptr;

gchar** lookUp(GProxyResolver*, const gchar*, GCancellable*, GError** error) {
  if (!answer) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "out of order");
    return nullptr;
  }
  const gchar* const list[] = {answer, "http://second.example:1", nullptr};
  return g_strdupv(const_cast<gchar**>(list));
}

/// Makes GLib's default resolver one that gives `answer`. Once in a process.
void replaceResolver() {
  g_setenv("GIO_USE_PROXY_RESOLVER", "scripted", TRUE);
  const GInterfaceInfo info{[](gpointer interface, gpointer) {
                              auto* resolver = static_cast<GProxyResolverInterface*>(interface);
                              resolver->is_supported = [](GProxyResolver*) -> gboolean {
                                return TRUE;
                              };
                              resolver->lookup = lookUp;
                            },
                            nullptr, nullptr};
  const GType type =
      g_type_register_static_simple(G_TYPE_OBJECT, "ScriptedResolver", sizeof(GObjectClass),
                                    nullptr, sizeof(GObject), nullptr, static_cast<GTypeFlags>(0));
  g_type_add_interface_static(type, G_TYPE_PROXY_RESOLVER, &info);
  // The point is there once somebody has asked for a resolver's type.
  g_io_extension_point_register(G_PROXY_RESOLVER_EXTENSION_POINT_NAME);
  g_io_extension_point_implement(G_PROXY_RESOLVER_EXTENSION_POINT_NAME, type, "scripted", 1);
}

TEST(DesktopProxy, IsNotFollowedOrGoesBeforeTheEnvironments) {
  for (const char* name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "all_proxy", "ALL_PROXY"}) {
    ::unsetenv(name);
  }
  replaceResolver();
  const struct {
    const char* answer;
    const char* proxy;
  } table[] = {
      {"direct://", ""},
      {"http://proxy.example:3128", "http://proxy.example:3128"},
      {"socks://proxy.example:1080", "socks5h://proxy.example:1080"},
      {"socks4a://proxy.example:1080", "socks4a://proxy.example:1080"},
      {nullptr, ""},
  };
  for (const auto& row : table) {
    answer = row.answer;
    EXPECT_EQ(desktopProxyFor("https://verdo.example"), row.proxy);
  }
  answer = "http://proxy.example:3128";
  const ScopedEnv environment("https_proxy", "http://other.example:1");
  EXPECT_EQ(desktopProxyFor("https://verdo.example"), "");
}

}  // namespace
}  // namespace verdo::test
