#pragma once

// How the host application is deployed; false and false for one that is installed where it runs. From any thread, as
// long as none changes the environment meanwhile: each call looks at VEXA_DEPLOYMENT, for exactly the value "cloud" or
// "thinclient".
__attribute__((visibility("default"))) bool IsApplicationOnCloud();
__attribute__((visibility("default"))) bool IsApplicationOnThinClient();
