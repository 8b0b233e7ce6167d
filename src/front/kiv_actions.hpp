// Every action the command dispatches. Each returns the run's exit status.
#pragma once

#include "front/kiv_options.hpp"

struct kivl_data;
struct hostconfig;

// Served with the entry's own upgrade data and hostconfig handle.
int kiv_initialize(kiv_options *options, kivl_data *data, hostconfig *hc);
int kiv_info(kiv_options *options, kivl_data *data, hostconfig *hc);
int kiv_mount(kiv_options *options, kivl_data *data, hostconfig *hc);
int kiv_partset(kiv_options *options, kivl_data *data, hostconfig *hc);

// Own their state.
int kiv_install(kiv_options *options);
int kiv_getrh(kiv_options *options);
int kiv_partinfo(kiv_options *options);
int kiv_activate(kiv_options *options);
int kiv_upgrade(kiv_options *options);
int verify_sets(kiv_options *options);
int kiv_getpartset(kiv_options *options);
int kiv_zunfinfo(kiv_options *options);
