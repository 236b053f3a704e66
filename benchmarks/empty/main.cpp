// Does nothing: what any program costs.
int main()
{
    return 0;
}
