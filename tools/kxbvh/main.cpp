// kxbvh: what kxCommonAddOns does for a mesh, from the command line.
#include <kxCommonAddOns.h>

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv)
{
    CLI::App app{"kxbvh: build and query bounding volume hierarchies over triangle meshes"};
    app.set_version_flag("--version",
                         std::string("kxbvh ") + kxCommonAddOns::Version::GetDescStringMajorMinorReleaseRevisionDate());
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return app.exit(e);
    }
    std::cout << app.help();
    return 0;
}
