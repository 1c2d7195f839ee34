// The plug-in host link: how a host agent finds this module and installs it
// into one of its Lua states. Hosts include this header only for the
// interface and the layout of the setup point; they never link the module.
#ifndef ASSETMAN_MODULE_PLUGIN_H
#define ASSETMAN_MODULE_PLUGIN_H

#define ASSETMAN_PLUGIN_API __attribute__((visibility("default")))

namespace luacall {

// What a host agent calls on a plug-in: install yourself into this Lua state.
// Hosts never delete a plug-in, hence no virtual destructor; the protected one
// keeps anybody from trying through this interface.
class ASSETMAN_PLUGIN_API ICPLUGIN_API {
public:
    virtual bool setup_capi(void* lua_state) = 0;

protected:
    ~ICPLUGIN_API() = default;
};

}  // namespace luacall

// The exported setup point's layout: two pointer-sized fields, in this order.
struct cplugin_api_setup {
    const char* name;
    luacall::ICPLUGIN_API* (*entry)();
};

class ASSETMAN_PLUGIN_API plugin : public luacall::ICPLUGIN_API {
public:
    // Runs the module's registration on the state; true when it returned 1.
    bool setup_capi(void* lua_state) override;

    // The one plug-in object of the process; never destroyed.
    static plugin* GetInstance();
};

extern "C" {
ASSETMAN_PLUGIN_API luacall::ICPLUGIN_API* get_cplug_api_point();
ASSETMAN_PLUGIN_API extern cplugin_api_setup cplugin_api_setup_point;
}

#endif
