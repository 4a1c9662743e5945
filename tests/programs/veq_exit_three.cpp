// Exits at once with code 3, whatever it is given: a plugin host that fails straight away.

int main()
{
    return 3;
}
